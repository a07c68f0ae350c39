// The fuzz driver for builds without libFuzzer: replays every file of the corpus directories,
// then runs mutations of them, deterministically from a seed, until a count or a time is
// reached. Sanitizers do the finding; a failed input is written to crash-<n>.bin first.
//
//   fuzz_target [-runs=N] [-seed=S] [-max_total_time=SECONDS] [-max_len=BYTES] DIR...
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
// From the sanitizer runtime when there is one: called before the process dies of a finding.
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

std::vector<uint8_t> g_current;

void saveCurrent() {
  static int n;
  std::string name = "crash-" + std::to_string(n++) + ".bin";
  std::ofstream(name, std::ios::binary).write(reinterpret_cast<const char *>(g_current.data()),
                                              std::streamsize(g_current.size()));
}

void run(const std::vector<uint8_t> &in) {
  g_current = in;
  LLVMFuzzerTestOneInput(in.data(), in.size());
}

// Values that sit on the edges of length and count checks.
const uint32_t kInteresting[] = {0, 1, 2, 3, 7, 8, 63, 64, 65, 127, 128, 255, 256, 1023, 1024, 8191, 8192,
                                 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};

void mutate(std::vector<uint8_t> &b, std::mt19937_64 &rng, size_t maxLen) {
  const int steps = 1 + int(rng() % 4);
  for (int s = 0; s < steps; ++s) {
    const size_t n = b.size();
    switch (rng() % 8) {
      case 0:  // flip a bit
        if (n) b[rng() % n] ^= uint8_t(1u << (rng() % 8));
        break;
      case 1:  // a random byte
        if (n) b[rng() % n] = uint8_t(rng());
        break;
      case 2:  // an edge value, big-endian, as a field of 1, 2 or 4 bytes
        if (n >= 4) {
          const uint32_t v = kInteresting[rng() % std::size(kInteresting)];
          const size_t w = size_t(1) << (rng() % 3), at = rng() % (n - w + 1);
          for (size_t i = 0; i < w; ++i) b[at + i] = uint8_t(v >> (8 * (w - 1 - i)));
        }
        break;
      case 3:  // cut the end
        if (n) b.resize(rng() % n);
        break;
      case 4:  // grow with random bytes
        for (size_t k = rng() % 64; k && b.size() < maxLen; --k) b.push_back(uint8_t(rng()));
        break;
      case 5:  // repeat a stretch at the end (another element, another record)
        if (n) {
          const size_t from = rng() % n, len = std::min<size_t>(1 + rng() % (n - from), maxLen - std::min(maxLen, n));
          b.insert(b.end(), b.begin() + long(from), b.begin() + long(from + len));
        }
        break;
      case 6:  // copy a stretch over another place
        if (n >= 2) {
          const size_t from = rng() % n, to = rng() % n, len = 1 + rng() % std::min<size_t>(16, n - std::max(from, to));
          std::memmove(&b[to], &b[from], len);
        }
        break;
      default:  // small arithmetic on a byte
        if (n) b[rng() % n] += uint8_t(int(rng() % 7) - 3);
        break;
    }
  }
}

}  // namespace

int main(int argc, char **argv) {
  uint64_t runs = 100000, seed = 1;
  double maxSeconds = 0;
  size_t maxLen = 8192;
  std::vector<std::vector<uint8_t>> corpus;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a.rfind("-runs=", 0) == 0) runs = std::strtoull(a.c_str() + 6, nullptr, 10);
    else if (a.rfind("-seed=", 0) == 0) seed = std::strtoull(a.c_str() + 6, nullptr, 10);
    else if (a.rfind("-max_total_time=", 0) == 0) maxSeconds = std::atof(a.c_str() + 16);
    else if (a.rfind("-max_len=", 0) == 0) maxLen = std::strtoull(a.c_str() + 9, nullptr, 10);
    else if (a[0] == '-') continue;  // libFuzzer options this driver does not know
    else if (std::filesystem::is_directory(a)) {
      for (const auto &e : std::filesystem::directory_iterator(a)) {
        std::ifstream f(e.path(), std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
      }
    }
  }
  if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(saveCurrent);
  if (corpus.empty()) corpus.emplace_back();
  for (const auto &in : corpus) run(in);
  std::mt19937_64 rng(seed);
  const auto start = std::chrono::steady_clock::now();
  uint64_t done = 0;
  for (; done < runs; ++done) {
    if (maxSeconds > 0 && (done & 63) == 0 &&
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= maxSeconds)
      break;
    std::vector<uint8_t> in = corpus[rng() % corpus.size()];
    mutate(in, rng, maxLen);
    run(in);
  }
  printf("standalone fuzz: %zu corpus inputs, %llu mutations, seed %llu, no failure\n", corpus.size(),
         static_cast<unsigned long long>(done), static_cast<unsigned long long>(seed));
  return 0;
}
