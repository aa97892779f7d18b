// A small stand-in for libFuzzer when the compiler has none: replays the seed corpus, then runs
// deterministic random mutations of it. It takes libFuzzer's flag names, so one command line
// serves both:
//   fuzz_x [-runs=N] [-max_total_time=S] [-seed=N] [-max_len=N] [-timeout=S] [-dict=FILE]
//          [-artifact_prefix=DIR/] CORPUS_DIR_OR_FILE...
// -runs counts mutations (-1: no limit, 0: replay only); -max_total_time 0 sets no time limit.
// Given only files, it runs each once (reproducing a crash). An input that crashes or overruns
// -timeout is written to <artifact_prefix>crash-<hash> (or timeout-<hash>).
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)(void));

namespace {

using Bytes = std::vector<uint8_t>;

// The input being run and the names it would be kept under, for the signal handlers.
const uint8_t* g_input = nullptr;
size_t g_inputSize = 0;
char g_crashName[700], g_timeoutName[700];

// Only async-signal-safe calls from here on.
void SaveInput(const char* name) {
  static volatile sig_atomic_t saved = 0;
  if (saved || !g_input) return;
  saved = 1;
  int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) {
    (void)!write(fd, g_input, g_inputSize);
    close(fd);
  }
  (void)!write(2, "fuzz driver: input saved to ", 28);
  (void)!write(2, name, strlen(name));
  (void)!write(2, "\n", 1);
}

// A sanitizer reports memory faults itself and then calls back; the signals it leaves alone come
// here, on a stack of their own (the sanitizer's when it set one) so a stack overflow is kept.
void InstallHandlers() {
  static char altStack[1 << 16];
  stack_t ss{};
  if (sigaltstack(nullptr, &ss) == 0 && (ss.ss_flags & SS_DISABLE)) {
    ss.ss_sp = altStack;
    ss.ss_size = sizeof altStack;
    ss.ss_flags = 0;
    sigaltstack(&ss, nullptr);
  }
  std::vector<int> signals = {SIGABRT, SIGILL, SIGALRM};
  if (__sanitizer_set_death_callback)
    __sanitizer_set_death_callback([] { SaveInput(g_crashName); });
  else
    signals.insert(signals.end(), {SIGFPE, SIGBUS, SIGSEGV});
  struct sigaction sa {};
  sa.sa_handler = [](int sig) {
    SaveInput(sig == SIGALRM ? g_timeoutName : g_crashName);
    signal(sig == SIGALRM ? SIGABRT : sig, SIG_DFL);
    raise(sig == SIGALRM ? SIGABRT : sig);
  };
  sa.sa_flags = SA_ONSTACK | SA_RESETHAND;
  for (int sig : signals) sigaction(sig, &sa, nullptr);
}

void RunOne(const Bytes& input, unsigned timeout, const char* prefix) {
  uint64_t h = 1469598103934665603ull;  // FNV-1a
  for (uint8_t c : input) h = (h ^ c) * 1099511628211ull;
  std::snprintf(g_crashName, sizeof g_crashName, "%scrash-%016" PRIx64, prefix, h);
  std::snprintf(g_timeoutName, sizeof g_timeoutName, "%stimeout-%016" PRIx64, prefix, h);
  // An exact-size heap copy, so that a read one past the end is caught.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[input.size()]);
  std::copy(input.begin(), input.end(), copy.get());
  g_input = copy.get();
  g_inputSize = input.size();
  alarm(timeout);
  LLVMFuzzerTestOneInput(copy.get(), input.size());
  alarm(0);
  g_input = nullptr;
}

// libFuzzer's dictionary lines: [name=]"token", with \\, \" and \xNN escapes.
std::vector<Bytes> ReadDictionary(const std::string& path) {
  std::vector<Bytes> tokens;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    size_t open = line.find('"'), close = line.rfind('"');
    if (open == std::string::npos || close <= open || line[0] == '#') continue;
    Bytes t;
    for (size_t i = open + 1; i < close; ++i) {
      if (line[i] == '\\' && line[i + 1] == 'x' && i + 3 < close) {
        t.push_back(static_cast<uint8_t>(std::strtoul(line.substr(i + 2, 2).c_str(), nullptr, 16)));
        i += 3;
      } else {
        if (line[i] == '\\' && i + 1 < close) ++i;
        t.push_back(static_cast<uint8_t>(line[i]));
      }
    }
    if (!t.empty()) tokens.push_back(t);
  }
  return tokens;
}

std::mt19937_64 g_rng;

size_t Below(size_t n) {
  return n ? static_cast<size_t>(g_rng() % n) : 0;
}

// 1 to most bytes of a non-empty b, from from on.
Bytes Piece(const Bytes& b, size_t from, size_t most) {
  return Bytes(b.begin() + static_cast<long>(from),
               b.begin() + static_cast<long>(from + 1 + Below(std::min(b.size() - from, most))));
}

void Mutate(Bytes& b, const std::vector<Bytes>& corpus, const std::vector<Bytes>& dict) {
  static const char kSpecial[] = "\0\xff\x7f\x80\n\r<>\"'=: \\/&";
  static const char* const kNumbers[] = {"0",          "-1",          "2147483647",
                                         "4294967295", "65536",       "256",
                                         "4294967296", "-2147483648", "99999999999999999999"};
  size_t at = Below(b.size() + 1), pos = Below(b.size());
  auto it = [&b](size_t i) { return b.begin() + static_cast<long>(i); };
  Bytes piece;  // goes in at at
  switch (b.empty() ? 3 + Below(3) : Below(6)) {
    case 0:  // a bit, or a byte that parsers treat specially
      b[pos] = static_cast<uint8_t>(Below(2) ? b[pos] ^ 1u << Below(8)
                                             : kSpecial[Below(sizeof kSpecial - 1)]);
      break;
    case 1:
      b.erase(it(pos), it(pos + Piece(b, pos, 32).size()));
      break;
    case 2: {  // a piece again, sometimes many times over: the over-long field
      Bytes part = Piece(b, pos, 64);
      for (size_t i = Below(2) ? 1 : 16 + Below(2048 / part.size()); i > 0; --i)
        piece.insert(piece.end(), part.begin(), part.end());
      break;
    }
    case 3:
      if (!dict.empty()) piece = dict[Below(dict.size())];
      break;
    case 4:  // splice with another seed
      if (const Bytes& other = corpus[Below(corpus.size())]; !other.empty()) {
        b.resize(at);
        b.insert(b.end(), other.begin() + static_cast<long>(Below(other.size())), other.end());
      }
      break;
    default: {  // a number in place of the digits there
      const char* n = kNumbers[Below(sizeof kNumbers / sizeof kNumbers[0])];
      size_t end = at;
      while (end < b.size() && b[end] >= '0' && b[end] <= '9') ++end;
      b.erase(it(at), it(end));
      piece.assign(n, n + std::strlen(n));
    }
  }
  b.insert(it(std::min(at, b.size())), piece.begin(), piece.end());
}

}  // namespace

int main(int argc, char** argv) {
  long runs = 2000;
  double maxSeconds = 10;
  uint64_t seed = 1;
  size_t maxLen = 4096;
  unsigned timeout = 10;
  std::string dict, prefix;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a[0] != '-') {
      inputs.push_back(a);
    } else if (a.rfind("-dict=", 0) == 0) {
      dict = a.substr(6);
    } else if (a.rfind("-artifact_prefix=", 0) == 0) {
      prefix = a.substr(17);
    } else if (std::sscanf(a.c_str(), "-runs=%ld", &runs) != 1 &&
               std::sscanf(a.c_str(), "-max_total_time=%lf", &maxSeconds) != 1 &&
               std::sscanf(a.c_str(), "-seed=%" SCNu64, &seed) != 1 &&
               std::sscanf(a.c_str(), "-max_len=%zu", &maxLen) != 1 &&
               std::sscanf(a.c_str(), "-timeout=%u", &timeout) != 1) {
      std::fprintf(stderr, "fuzz driver: ignoring %s\n", a.c_str());
    }
  }
  InstallHandlers();
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);

  bool onlyFiles = !inputs.empty();
  std::vector<Bytes> corpus;
  for (const std::string& in : inputs) {
    std::error_code ec;
    std::vector<std::filesystem::path> files;
    for (const auto& e : std::filesystem::directory_iterator(in, ec))
      if (e.is_regular_file() && e.path().filename().string()[0] != '.') files.push_back(e.path());
    std::sort(files.begin(), files.end());  // so runs repeat exactly
    bool folder = std::filesystem::is_directory(in, ec);
    onlyFiles = onlyFiles && !folder;
    if (!folder) files.push_back(in);
    for (const auto& f : files) {
      std::ifstream s(f, std::ios::binary);
      if (!s) {
        std::fprintf(stderr, "fuzz driver: cannot read %s\n", f.c_str());
        return 2;
      }
      corpus.emplace_back(std::istreambuf_iterator<char>(s), std::istreambuf_iterator<char>());
    }
  }

  auto start = std::chrono::steady_clock::now();
  auto spent = [start] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  for (const Bytes& b : corpus) RunOne(b, timeout, prefix.c_str());
  std::vector<Bytes> dictionary = dict.empty() ? std::vector<Bytes>() : ReadDictionary(dict);
  if (corpus.empty()) corpus.emplace_back();
  g_rng.seed(seed);
  long mutations = 0;
  // Half the time build on the last mutant, so changes stack up over several rounds.
  for (Bytes b;
       !onlyFiles && (runs < 0 || mutations < runs) && (maxSeconds <= 0 || spent() < maxSeconds);
       ++mutations) {
    if (b.empty() || Below(2)) b = corpus[Below(corpus.size())];
    for (size_t n = 1 + Below(4); n > 0; --n) Mutate(b, corpus, dictionary);
    if (b.size() > maxLen) b.resize(maxLen);
    RunOne(b, timeout, prefix.c_str());
  }
  std::printf("fuzz driver: %zu seeds and %ld mutations in %.1f s, no fault\n", corpus.size(),
              mutations, spent());
  return 0;
}
