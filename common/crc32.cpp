#include "common/crc32.h"

#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define FTC_CRC_CLMUL 1
#endif

namespace ftc {

constexpr uint32_t kCrc32Table[256] = {
    0x00000000u, 0x77073096u, 0xEE0E612Cu, 0x990951BAu, 0x076DC419u, 0x706AF48Fu, 0xE963A535u,
    0x9E6495A3u, 0x0EDB8832u, 0x79DCB8A4u, 0xE0D5E91Eu, 0x97D2D988u, 0x09B64C2Bu, 0x7EB17CBDu,
    0xE7B82D07u, 0x90BF1D91u, 0x1DB71064u, 0x6AB020F2u, 0xF3B97148u, 0x84BE41DEu, 0x1ADAD47Du,
    0x6DDDE4EBu, 0xF4D4B551u, 0x83D385C7u, 0x136C9856u, 0x646BA8C0u, 0xFD62F97Au, 0x8A65C9ECu,
    0x14015C4Fu, 0x63066CD9u, 0xFA0F3D63u, 0x8D080DF5u, 0x3B6E20C8u, 0x4C69105Eu, 0xD56041E4u,
    0xA2677172u, 0x3C03E4D1u, 0x4B04D447u, 0xD20D85FDu, 0xA50AB56Bu, 0x35B5A8FAu, 0x42B2986Cu,
    0xDBBBC9D6u, 0xACBCF940u, 0x32D86CE3u, 0x45DF5C75u, 0xDCD60DCFu, 0xABD13D59u, 0x26D930ACu,
    0x51DE003Au, 0xC8D75180u, 0xBFD06116u, 0x21B4F4B5u, 0x56B3C423u, 0xCFBA9599u, 0xB8BDA50Fu,
    0x2802B89Eu, 0x5F058808u, 0xC60CD9B2u, 0xB10BE924u, 0x2F6F7C87u, 0x58684C11u, 0xC1611DABu,
    0xB6662D3Du, 0x76DC4190u, 0x01DB7106u, 0x98D220BCu, 0xEFD5102Au, 0x71B18589u, 0x06B6B51Fu,
    0x9FBFE4A5u, 0xE8B8D433u, 0x7807C9A2u, 0x0F00F934u, 0x9609A88Eu, 0xE10E9818u, 0x7F6A0DBBu,
    0x086D3D2Du, 0x91646C97u, 0xE6635C01u, 0x6B6B51F4u, 0x1C6C6162u, 0x856530D8u, 0xF262004Eu,
    0x6C0695EDu, 0x1B01A57Bu, 0x8208F4C1u, 0xF50FC457u, 0x65B0D9C6u, 0x12B7E950u, 0x8BBEB8EAu,
    0xFCB9887Cu, 0x62DD1DDFu, 0x15DA2D49u, 0x8CD37CF3u, 0xFBD44C65u, 0x4DB26158u, 0x3AB551CEu,
    0xA3BC0074u, 0xD4BB30E2u, 0x4ADFA541u, 0x3DD895D7u, 0xA4D1C46Du, 0xD3D6F4FBu, 0x4369E96Au,
    0x346ED9FCu, 0xAD678846u, 0xDA60B8D0u, 0x44042D73u, 0x33031DE5u, 0xAA0A4C5Fu, 0xDD0D7CC9u,
    0x5005713Cu, 0x270241AAu, 0xBE0B1010u, 0xC90C2086u, 0x5768B525u, 0x206F85B3u, 0xB966D409u,
    0xCE61E49Fu, 0x5EDEF90Eu, 0x29D9C998u, 0xB0D09822u, 0xC7D7A8B4u, 0x59B33D17u, 0x2EB40D81u,
    0xB7BD5C3Bu, 0xC0BA6CADu, 0xEDB88320u, 0x9ABFB3B6u, 0x03B6E20Cu, 0x74B1D29Au, 0xEAD54739u,
    0x9DD277AFu, 0x04DB2615u, 0x73DC1683u, 0xE3630B12u, 0x94643B84u, 0x0D6D6A3Eu, 0x7A6A5AA8u,
    0xE40ECF0Bu, 0x9309FF9Du, 0x0A00AE27u, 0x7D079EB1u, 0xF00F9344u, 0x8708A3D2u, 0x1E01F268u,
    0x6906C2FEu, 0xF762575Du, 0x806567CBu, 0x196C3671u, 0x6E6B06E7u, 0xFED41B76u, 0x89D32BE0u,
    0x10DA7A5Au, 0x67DD4ACCu, 0xF9B9DF6Fu, 0x8EBEEFF9u, 0x17B7BE43u, 0x60B08ED5u, 0xD6D6A3E8u,
    0xA1D1937Eu, 0x38D8C2C4u, 0x4FDFF252u, 0xD1BB67F1u, 0xA6BC5767u, 0x3FB506DDu, 0x48B2364Bu,
    0xD80D2BDAu, 0xAF0A1B4Cu, 0x36034AF6u, 0x41047A60u, 0xDF60EFC3u, 0xA867DF55u, 0x316E8EEFu,
    0x4669BE79u, 0xCB61B38Cu, 0xBC66831Au, 0x256FD2A0u, 0x5268E236u, 0xCC0C7795u, 0xBB0B4703u,
    0x220216B9u, 0x5505262Fu, 0xC5BA3BBEu, 0xB2BD0B28u, 0x2BB45A92u, 0x5CB36A04u, 0xC2D7FFA7u,
    0xB5D0CF31u, 0x2CD99E8Bu, 0x5BDEAE1Du, 0x9B64C2B0u, 0xEC63F226u, 0x756AA39Cu, 0x026D930Au,
    0x9C0906A9u, 0xEB0E363Fu, 0x72076785u, 0x05005713u, 0x95BF4A82u, 0xE2B87A14u, 0x7BB12BAEu,
    0x0CB61B38u, 0x92D28E9Bu, 0xE5D5BE0Du, 0x7CDCEFB7u, 0x0BDBDF21u, 0x86D3D2D4u, 0xF1D4E242u,
    0x68DDB3F8u, 0x1FDA836Eu, 0x81BE16CDu, 0xF6B9265Bu, 0x6FB077E1u, 0x18B74777u, 0x88085AE6u,
    0xFF0F6A70u, 0x66063BCAu, 0x11010B5Cu, 0x8F659EFFu, 0xF862AE69u, 0x616BFFD3u, 0x166CCF45u,
    0xA00AE278u, 0xD70DD2EEu, 0x4E048354u, 0x3903B3C2u, 0xA7672661u, 0xD06016F7u, 0x4969474Du,
    0x3E6E77DBu, 0xAED16A4Au, 0xD9D65ADCu, 0x40DF0B66u, 0x37D83BF0u, 0xA9BCAE53u, 0xDEBB9EC5u,
    0x47B2CF7Fu, 0x30B5FFE9u, 0xBDBDF21Cu, 0xCABAC28Au, 0x53B39330u, 0x24B4A3A6u, 0xBAD03605u,
    0xCDD70693u, 0x54DE5729u, 0x23D967BFu, 0xB3667A2Eu, 0xC4614AB8u, 0x5D681B02u, 0x2A6F2B94u,
    0xB40BBE37u, 0xC30C8EA1u, 0x5A05DF1Bu, 0x2D02EF8Du,
};

namespace {

// Tables for slicing by 16, derived from the stored one at compile time: entry [k][n] is the
// register change of byte n followed by k zero bytes.
struct SliceTables {
  uint32_t t[16][256];
};

constexpr SliceTables MakeSliceTables() {
  SliceTables s{};
  for (int n = 0; n < 256; ++n) s.t[0][n] = kCrc32Table[n];
  for (int k = 1; k < 16; ++k)
    for (int n = 0; n < 256; ++n)
      s.t[k][n] = (s.t[k - 1][n] >> 8) ^ kCrc32Table[s.t[k - 1][n] & 0xFF];
  return s;
}

constexpr SliceTables kSlices = MakeSliceTables();

uint32_t Bytewise(uint32_t crc, const uint8_t* p, size_t n) {
  while (n--) crc = (crc >> 8) ^ kCrc32Table[(crc ^ *p++) & 0xFF];
  return crc;
}

inline uint32_t Load32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap32(v);
#endif
  return v;
}

uint32_t Slice16(uint32_t crc, const uint8_t* p, size_t n) {
  const auto& t = kSlices.t;
  while (n >= 16) {
    uint32_t a = Load32(p) ^ crc, b = Load32(p + 4), c = Load32(p + 8), d = Load32(p + 12);
    crc = t[15][a & 0xFF] ^ t[14][(a >> 8) & 0xFF] ^ t[13][(a >> 16) & 0xFF] ^ t[12][a >> 24] ^
          t[11][b & 0xFF] ^ t[10][(b >> 8) & 0xFF] ^ t[9][(b >> 16) & 0xFF] ^ t[8][b >> 24] ^
          t[7][c & 0xFF] ^ t[6][(c >> 8) & 0xFF] ^ t[5][(c >> 16) & 0xFF] ^ t[4][c >> 24] ^
          t[3][d & 0xFF] ^ t[2][(d >> 8) & 0xFF] ^ t[1][(d >> 16) & 0xFF] ^ t[0][d >> 24];
    p += 16;
    n -= 16;
  }
  return Bytewise(crc, p, n);
}

#ifdef FTC_CRC_CLMUL
// Carry-less multiply folding of the reflected polynomial: four 128-bit lanes folded 64 bytes at
// a time, then reduced to 32 bits (Barrett). The constants are x^k mod P for the fold distances.
#define FTC_CLMUL __attribute__((target("pclmul,sse4.1")))

FTC_CLMUL inline __m128i load(const uint8_t* q) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
}

// x folded forward by the distance k stands for, plus the next block.
FTC_CLMUL inline __m128i fold(__m128i x, __m128i k, __m128i next) {
  __m128i lo = _mm_clmulepi64_si128(x, k, 0x00);
  __m128i hi = _mm_clmulepi64_si128(x, k, 0x11);
  return _mm_xor_si128(_mm_xor_si128(hi, lo), next);
}

alignas(16) const uint64_t k1k2[2] = {0x0154442bd4ull, 0x01c6e41596ull};  // 64-byte distance
alignas(16) const uint64_t k3k4[2] = {0x01751997d0ull, 0x00ccaa009eull};  // 16-byte distance
alignas(16) const uint64_t k5k0[2] = {0x0163cd6124ull, 0};
alignas(16) const uint64_t poly[2] = {0x01db710641ull, 0x01f7011641ull};

// Four lanes holding the register state of 64 consecutive bytes, folded over the rest (n a
// multiple of 16) and reduced to the 32-bit register.
FTC_CLMUL uint32_t FoldLanes(__m128i x1, __m128i x2, __m128i x3, __m128i x4, const uint8_t* p,
                             size_t n) {
  __m128i k = _mm_load_si128(reinterpret_cast<const __m128i*>(k1k2));
  while (n >= 64) {
    x1 = fold(x1, k, load(p));
    x2 = fold(x2, k, load(p + 16));
    x3 = fold(x3, k, load(p + 32));
    x4 = fold(x4, k, load(p + 48));
    p += 64;
    n -= 64;
  }

  k = _mm_load_si128(reinterpret_cast<const __m128i*>(k3k4));
  x1 = fold(x1, k, x2);
  x1 = fold(x1, k, x3);
  x1 = fold(x1, k, x4);
  while (n >= 16) {
    x1 = fold(x1, k, load(p));
    p += 16;
    n -= 16;
  }

  // 128 -> 64 bits.
  __m128i mask32 = _mm_setr_epi32(~0, 0, ~0, 0);
  x2 = _mm_clmulepi64_si128(x1, k, 0x10);
  x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), x2);
  k = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(k5k0));
  x2 = _mm_srli_si128(x1, 4);
  x1 = _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), k, 0x00);
  x1 = _mm_xor_si128(x1, x2);

  // Barrett reduction to 32 bits.
  k = _mm_load_si128(reinterpret_cast<const __m128i*>(poly));
  x2 = _mm_clmulepi64_si128(_mm_and_si128(x1, mask32), k, 0x10);
  x2 = _mm_clmulepi64_si128(_mm_and_si128(x2, mask32), k, 0x00);
  x1 = _mm_xor_si128(x1, x2);
  return static_cast<uint32_t>(_mm_extract_epi32(x1, 1));
}

// REQUIRES: n >= 64 and a multiple of 16.
FTC_CLMUL uint32_t FoldClmul(uint32_t crc, const uint8_t* p, size_t n) {
  __m128i x1 = _mm_xor_si128(load(p), _mm_cvtsi32_si128(static_cast<int>(crc)));
  return FoldLanes(x1, load(p + 16), load(p + 32), load(p + 48), p + 64, n - 64);
}

// The same folding on 512-bit registers: four of them cover 256 bytes per step, then they are
// folded into one whose four lanes continue on the 128-bit path.
#define FTC_VCLMUL __attribute__((target("avx512f,vpclmulqdq,pclmul,sse4.1")))

FTC_VCLMUL inline __m512i load512(const uint8_t* q) {
  return _mm512_loadu_si512(q);
}

FTC_VCLMUL inline __m512i fold512(__m512i x, __m512i k, __m512i next) {
  __m512i lo = _mm512_clmulepi64_epi128(x, k, 0x00);
  __m512i hi = _mm512_clmulepi64_epi128(x, k, 0x11);
  return _mm512_ternarylogic_epi64(lo, hi, next, 0x96);  // three-way XOR
}

// The same pair of constants in every 128-bit lane.
FTC_VCLMUL inline __m512i Broadcast(long long lo, long long hi) {
  return _mm512_set_epi64(hi, lo, hi, lo, hi, lo, hi, lo);
}

// REQUIRES: n >= 256 and a multiple of 16.
FTC_VCLMUL uint32_t FoldVclmul(uint32_t crc, const uint8_t* p, size_t n) {
  __m512i a0 = load512(p), a1 = load512(p + 64), a2 = load512(p + 128), a3 = load512(p + 192);
  a0 = _mm512_xor_si512(a0, _mm512_set_epi64(0, 0, 0, 0, 0, 0, 0, static_cast<long long>(crc)));
  // 256-byte distance.
  __m512i k = Broadcast(0x011542778all, 0x01322d1430ll);
  p += 256;
  n -= 256;
  while (n >= 256) {
    a0 = fold512(a0, k, load512(p));
    a1 = fold512(a1, k, load512(p + 64));
    a2 = fold512(a2, k, load512(p + 128));
    a3 = fold512(a3, k, load512(p + 192));
    p += 256;
    n -= 256;
  }
  k = Broadcast(static_cast<long long>(k1k2[0]), static_cast<long long>(k1k2[1]));
  a1 = fold512(a0, k, a1);
  a2 = fold512(a1, k, a2);
  a3 = fold512(a2, k, a3);
  alignas(64) uint8_t lanes[64];
  _mm512_store_si512(lanes, a3);
  return FoldLanes(load(lanes), load(lanes + 16), load(lanes + 32), load(lanes + 48), p, n);
}

bool HaveVclmul() {
  static const bool have = __builtin_cpu_supports("avx512f") &&
                           __builtin_cpu_supports("vpclmulqdq") &&
                           __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return have;
}

bool HaveClmul() {
  static const bool have = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return have;
}
#endif

}  // namespace

uint32_t Crc32Advance(uint32_t crc, const void* data, size_t length) {
  const uint8_t* p = static_cast<const uint8_t*>(data);
#ifdef FTC_CRC_CLMUL
  if (length >= 256 && HaveVclmul()) {
    size_t folded = length & ~size_t(15);
    crc = FoldVclmul(crc, p, folded);
    p += folded;
    length -= folded;
  } else if (length >= 64 && HaveClmul()) {
    size_t folded = length & ~size_t(15);
    crc = FoldClmul(crc, p, folded);
    p += folded;
    length -= folded;
  }
#endif
  return Slice16(crc, p, length);
}

}  // namespace ftc
