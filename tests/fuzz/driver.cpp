// A small stand-in for libFuzzer when the compiler has none: replays a seed corpus, then runs a
// bounded number of deterministic random mutations of it. It takes libFuzzer's flag names, so
// the same command line works with either:
//
//   fuzz_x [-runs=N] [-max_total_time=S] [-seed=N] [-max_len=N] [-timeout=S] [-dict=FILE]
//          [-artifact_prefix=DIR/] CORPUS_DIR_OR_FILE...
//
// -runs counts mutations (-1: no limit, 0: replay only); -max_total_time 0 sets no time limit.
//
// Given only files, it runs each once and stops (reproducing a crash). An input that crashes or
// overruns -timeout is written to <artifact_prefix>crash-<hash> (or timeout-<hash>).
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)(void));

namespace {

using Bytes = std::vector<uint8_t>;

struct Options {
  long runs = 2000;
  double maxSeconds = 10;
  uint64_t seed = 1;
  size_t maxLen = 4096;
  unsigned timeout = 10;
  std::string dict;
  std::string artifactPrefix;
  std::vector<std::string> inputs;
};

// The input being run, for the crash and time-out handlers.
const uint8_t* g_current = nullptr;
size_t g_currentSize = 0;
char g_artifactPrefix[512] = "";
volatile sig_atomic_t g_saved = 0;

uint64_t Fnv1a(const uint8_t* data, size_t size) {
  uint64_t h = 1469598103934665603ull;
  for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211ull;
  return h;
}

// Only async-signal-safe calls: this runs inside signal handlers.
void SaveCurrent(const char* kind) {
  if (g_saved || !g_current) return;
  g_saved = 1;
  char name[600];
  uint64_t h = Fnv1a(g_current, g_currentSize);
  size_t n = 0;
  for (const char* p = g_artifactPrefix; *p && n < 500; ++p) name[n++] = *p;
  for (const char* p = kind; *p; ++p) name[n++] = *p;
  name[n++] = '-';
  for (int shift = 60; shift >= 0; shift -= 4) name[n++] = "0123456789abcdef"[(h >> shift) & 15];
  name[n] = 0;
  int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) {
    size_t done = 0;
    while (done < g_currentSize) {
      ssize_t w = write(fd, g_current + done, g_currentSize - done);
      if (w <= 0) break;
      done += static_cast<size_t>(w);
    }
    close(fd);
  }
  const char note[] = "fuzz driver: input saved to ";
  (void)!write(2, note, sizeof note - 1);
  (void)!write(2, name, n);
  (void)!write(2, "\n", 1);
}

void OnDeath() {
  SaveCurrent("crash");
}

void OnSignal(int sig) {
  SaveCurrent(sig == SIGALRM ? "timeout" : "crash");
  if (sig == SIGALRM) {
    const char note[] = "fuzz driver: input ran past its time-out\n";
    (void)!write(2, note, sizeof note - 1);
    sig = SIGABRT;
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

bool ReadFile(const std::string& path, Bytes& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream s;
  s << in.rdbuf();
  std::string text = s.str();
  out.assign(text.begin(), text.end());
  return true;
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Every regular file of a folder, in name order so runs repeat exactly.
std::vector<std::string> ListFolder(const std::string& dir) {
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string path = dir + "/" + e->d_name;
      struct stat st;
      if (e->d_name[0] != '.' && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        files.push_back(path);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

// libFuzzer's dictionary format: one "token" per line, optionally name=, with \\, \" and \xNN.
std::vector<Bytes> ReadDictionary(const std::string& path) {
  std::vector<Bytes> tokens;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    size_t open = line.find('"');
    size_t close = line.rfind('"');
    if (line.empty() || line[0] == '#' || open == std::string::npos || close <= open) continue;
    Bytes token;
    for (size_t i = open + 1; i < close; ++i) {
      if (line[i] != '\\' || i + 1 >= close) {
        token.push_back(static_cast<uint8_t>(line[i]));
      } else if (line[i + 1] == 'x' && i + 3 < close) {
        token.push_back(
            static_cast<uint8_t>(std::strtoul(line.substr(i + 2, 2).c_str(), nullptr, 16)));
        i += 3;
      } else {
        token.push_back(static_cast<uint8_t>(line[++i]));
      }
    }
    if (!token.empty()) tokens.push_back(token);
  }
  return tokens;
}

void RunOne(const Bytes& input, unsigned timeout) {
  // An exact-size heap copy, so that a read one past the end is caught.
  uint8_t* copy = static_cast<uint8_t*>(std::malloc(input.empty() ? 1 : input.size()));
  if (!input.empty()) std::memcpy(copy, input.data(), input.size());
  g_current = copy;
  g_currentSize = input.size();
  if (timeout) alarm(timeout);
  LLVMFuzzerTestOneInput(copy, input.size());
  if (timeout) alarm(0);
  g_current = nullptr;
  std::free(copy);
}

class Mutator {
 public:
  Mutator(uint64_t seed, const std::vector<Bytes>* corpus, std::vector<Bytes> dict, size_t maxLen)
      : m_rng(seed), m_corpus(corpus), m_dict(std::move(dict)), m_maxLen(maxLen) {}

  Bytes Next() {
    Bytes b;
    // Half the time build on the last mutant, so changes can stack up over several rounds.
    if (!m_last.empty() && Below(2) == 0)
      b = m_last;
    else if (!m_corpus->empty())
      b = (*m_corpus)[Below(m_corpus->size())];
    for (size_t n = 1 + Below(4); n > 0; --n) MutateOnce(b);
    if (b.size() > m_maxLen) b.resize(m_maxLen);
    m_last = b;
    return b;
  }

 private:
  size_t Below(size_t n) { return n ? static_cast<size_t>(m_rng() % n) : 0; }

  void MutateOnce(Bytes& b) {
    static const uint8_t kSpecial[] = {0,   0xFF, 0x7F, 0x80, '\n', '\r', '<', '>',
                                       '"', '\'', '=',  ' ',  ':',  '\\', '/', '&'};
    static const char* const kNumbers[] = {"0",           "-1",         "2147483647",
                                           "4294967295",  "4294967296", "99999999999999999999",
                                           "-2147483648", "65536",      "256"};
    switch (Below(10)) {
      case 0:  // flip a bit
        if (!b.empty()) b[Below(b.size())] ^= static_cast<uint8_t>(1u << Below(8));
        break;
      case 1:  // a special byte
        if (!b.empty()) b[Below(b.size())] = kSpecial[Below(sizeof kSpecial)];
        break;
      case 2: {  // insert random bytes
        size_t at = Below(b.size() + 1);
        Bytes more(1 + Below(8));
        for (uint8_t& c : more) c = static_cast<uint8_t>(m_rng());
        b.insert(b.begin() + static_cast<long>(at), more.begin(), more.end());
        break;
      }
      case 3: {  // erase a range
        if (b.empty()) break;
        size_t at = Below(b.size());
        size_t n = 1 + Below(std::min<size_t>(b.size() - at, 32));
        b.erase(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n));
        break;
      }
      case 4: {  // copy a range elsewhere
        if (b.empty()) break;
        size_t from = Below(b.size());
        size_t n = 1 + Below(std::min<size_t>(b.size() - from, 64));
        Bytes part(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(from + n));
        size_t at = Below(b.size() + 1);
        b.insert(b.begin() + static_cast<long>(at), part.begin(), part.end());
        break;
      }
      case 5:
      case 6: {  // a dictionary token
        if (m_dict.empty()) break;
        const Bytes& t = m_dict[Below(m_dict.size())];
        size_t at = Below(b.size() + 1);
        if (Below(2) && at + t.size() <= b.size())
          std::copy(t.begin(), t.end(), b.begin() + static_cast<long>(at));
        else
          b.insert(b.begin() + static_cast<long>(at), t.begin(), t.end());
        break;
      }
      case 7: {  // splice with another seed
        if (m_corpus->empty()) break;
        const Bytes& other = (*m_corpus)[Below(m_corpus->size())];
        if (other.empty()) break;
        size_t keep = Below(b.size() + 1);
        size_t from = Below(other.size());
        b.resize(keep);
        b.insert(b.end(), other.begin() + static_cast<long>(from), other.end());
        break;
      }
      case 8: {  // a number where digits were, or anywhere
        const char* n = kNumbers[Below(sizeof kNumbers / sizeof kNumbers[0])];
        size_t at = Below(b.size() + 1);
        size_t end = at;
        while (end < b.size() && b[end] >= '0' && b[end] <= '9') ++end;
        b.erase(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(end));
        b.insert(b.begin() + static_cast<long>(at), n, n + std::strlen(n));
        break;
      }
      case 9: {  // repeat a short piece many times: the over-long field
        if (b.empty()) break;
        size_t from = Below(b.size());
        size_t n = 1 + Below(std::min<size_t>(b.size() - from, 8));
        Bytes part(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(from + n));
        size_t times = 16 + Below(2048 / n);
        Bytes run;
        for (size_t i = 0; i < times && run.size() < m_maxLen; ++i)
          run.insert(run.end(), part.begin(), part.end());
        b.insert(b.begin() + static_cast<long>(from), run.begin(), run.end());
        break;
      }
    }
  }

  std::mt19937_64 m_rng;
  const std::vector<Bytes>* m_corpus;
  std::vector<Bytes> m_dict;
  size_t m_maxLen;
  Bytes m_last;
};

bool Flag(const char* arg, const char* name, std::string& value) {
  size_t n = std::strlen(name);
  if (std::strncmp(arg, name, n) != 0 || arg[n] != '=') return false;
  value = arg + n + 1;
  return true;
}

Options ParseArguments(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string v;
    const char* a = argv[i];
    if (Flag(a, "-runs", v)) {
      o.runs = std::atol(v.c_str());
    } else if (Flag(a, "-max_total_time", v)) {
      o.maxSeconds = std::atof(v.c_str());
    } else if (Flag(a, "-seed", v)) {
      o.seed = std::strtoull(v.c_str(), nullptr, 10);
    } else if (Flag(a, "-max_len", v)) {
      o.maxLen = std::strtoull(v.c_str(), nullptr, 10);
    } else if (Flag(a, "-timeout", v)) {
      o.timeout = static_cast<unsigned>(std::atoi(v.c_str()));
    } else if (Flag(a, "-dict", v)) {
      o.dict = v;
    } else if (Flag(a, "-artifact_prefix", v)) {
      o.artifactPrefix = v;
    } else if (a[0] == '-') {
      std::fprintf(stderr, "fuzz driver: ignoring %s\n", a);
    } else {
      o.inputs.push_back(a);
    }
  }
  return o;
}

}  // namespace

int main(int argc, char** argv) {
  Options o = ParseArguments(argc, argv);
  std::snprintf(g_artifactPrefix, sizeof g_artifactPrefix, "%s", o.artifactPrefix.c_str());
  // A sanitizer reports memory faults itself and then calls back; the signals it leaves alone
  // (abort, trap, time-out) come here. Handlers run on a stack of their own (the sanitizer's
  // when it set one), so that a stack overflow is still reported.
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
    __sanitizer_set_death_callback(OnDeath);
  else
    signals.insert(signals.end(), {SIGFPE, SIGBUS, SIGSEGV});
  for (int sig : signals) {
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sa.sa_flags = SA_ONSTACK | SA_RESETHAND;
    sigaction(sig, &sa, nullptr);
  }
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);

  bool onlyFiles = !o.inputs.empty();
  std::vector<Bytes> corpus;
  for (const std::string& in : o.inputs) {
    std::vector<std::string> files;
    if (IsDirectory(in)) {
      onlyFiles = false;
      files = ListFolder(in);
    } else {
      files.push_back(in);
    }
    for (const std::string& f : files) {
      Bytes b;
      if (!ReadFile(f, b)) {
        std::fprintf(stderr, "fuzz driver: cannot read %s\n", f.c_str());
        return 2;
      }
      corpus.push_back(std::move(b));
    }
  }

  auto start = std::chrono::steady_clock::now();
  for (const Bytes& b : corpus) RunOne(b, o.timeout);
  long mutations = 0;
  if (!onlyFiles) {
    Mutator mutator(o.seed, &corpus, o.dict.empty() ? std::vector<Bytes>() : ReadDictionary(o.dict),
                    o.maxLen);
    for (; o.runs < 0 || mutations < o.runs; ++mutations) {
      std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
      if (o.maxSeconds > 0 && spent.count() >= o.maxSeconds) break;
      RunOne(mutator.Next(), o.timeout);
    }
  }
  std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
  std::printf("fuzz driver: %zu seeds and %ld mutations in %.1f s, no fault\n", corpus.size(),
              mutations, spent.count());
  return 0;
}
