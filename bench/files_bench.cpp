// The file object and UTF-8 conversion against their peers, measured in the
// same run: fwrite and glibc getline with the same 1 MiB buffer, zlib's gz*
// calls and zstd's streaming calls used directly, the gzip and zstd tools,
// and iconv. Each pair's speed ratio is printed at the end.
//
// Sizes (MiB) come from the environment so a run fits the machine:
//   HOSTKIT_BENCH_PLAIN_MB (default 256; 1024 for the full-size comparison)
//   HOSTKIT_BENCH_Z_MB     (default 32), HOSTKIT_BENCH_DIR (default /tmp)
// With HOSTKIT_BENCH_DIR on a memory file system (/dev/shm) the file rows
// compare the code's own cost; on a disk, the disk's write-back comes and
// goes between runs and takes over the plain rows.
// The repetitions of all benchmarks run interleaved in random order unless
// the command line says otherwise.
#include <benchmark/benchmark.h>
#include <iconv.h>
#include <zlib.h>
#include <zstd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "sysfile.h"
#include "sysutf8.h"

namespace {

uint64_t env_mb(const char* name, uint64_t fallback) {
  const char* v = std::getenv(name);
  return (v != nullptr && std::atoll(v) > 0 ? static_cast<uint64_t>(std::atoll(v)) : fallback)
         << 20;
}

const uint64_t kPlainBytes = env_mb("HOSTKIT_BENCH_PLAIN_MB", 256);
const uint64_t kZBytes = env_mb("HOSTKIT_BENCH_Z_MB", 32);
const std::string kDir =
    std::getenv("HOSTKIT_BENCH_DIR") != nullptr ? std::getenv("HOSTKIT_BENCH_DIR") : "/tmp";
const std::string kOut = kDir + "/hostkit_bench_out";
const std::string kText = kDir + "/hostkit_bench_text.txt";
const std::string kZText = kDir + "/hostkit_bench_ztext.txt";

SysEnv* env() {
  static SysEnv* e = sysenv_create(0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  return e;
}

// Log-like text: lines of 20 to 100 characters, words from a small
// vocabulary and numbers, so it compresses as real text does.
std::string make_text(uint64_t size) {
  static const char* words[] = {"alpha", "beta", "request", "cache", "thread", "done", "error",
                                "value", "host", "core",    "file",  "=",      "->",   "ok"};
  std::string s;
  s.reserve(size);
  uint32_t x = 12345;
  while (s.size() < size) {
    x = x * 1103515245u + 12345u;
    const uint32_t target = 20 + (x >> 16) % 80;
    std::string line;
    while (line.size() < target) {
      x = x * 1103515245u + 12345u;
      line += words[(x >> 16) % 14];
      line += ' ';
      if ((x & 7) == 0) line += std::to_string(x % 100000) + ' ';
    }
    line.back() = '\n';
    s += line;
  }
  s.resize(size);
  return s;
}

// The data the writers write, 4 KiB at a time: distinct text, so the
// compressors work as on real input.
const std::string& source() {
  static const std::string s =
      make_text(std::min<uint64_t>(std::max(kZBytes, kPlainBytes), 64 << 20));
  return s;
}
const char* piece_at(uint64_t done) { return source().data() + done % source().size(); }
constexpr uint64_t kPiece = 4096;

void ensure_file(const std::string& path, uint64_t size) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f != nullptr) {
    std::fseek(f, 0, SEEK_END);
    const long have = std::ftell(f);
    std::fclose(f);
    if (static_cast<uint64_t>(have) == size) return;
  }
  const std::string& chunk = source();
  f = std::fopen(path.c_str(), "wb");
  for (uint64_t done = 0; done < size;) {
    const uint64_t n = std::min<uint64_t>(chunk.size(), size - done);
    std::fwrite(chunk.data(), 1, n, f);
    done += n;
  }
  std::fclose(f);
}

SysFile* open_file(const std::string& path, int32_t read, int32_t kind, int32_t level) {
  SysFile* file = nullptr;
  int32_t status = 0;
  sysfile_open(env(), path.c_str(), 0, read, read == 0 ? 1 : 0, 0, kind, level, &file, &status);
  if (status != 0) std::abort();
  return file;
}

// ---- plain write, 4 KiB pieces
void BM_PlainWrite_hostkit(benchmark::State& state) {
  source();
  for (auto _ : state) {
    SysFile* file = open_file(kOut, 0, SYSFILE_PLAIN, 0);
    for (uint64_t done = 0; done < kPlainBytes; done += kPiece)
      sysfile_write(file, kPiece, piece_at(done));
    sysfile_close(&file);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPlainBytes));
}
void BM_PlainWrite_fwrite(benchmark::State& state) {
  source();
  std::vector<char> buffer(1 << 20);
  for (auto _ : state) {
    FILE* f = std::fopen(kOut.c_str(), "wb");
    std::setvbuf(f, buffer.data(), _IOFBF, buffer.size());
    for (uint64_t done = 0; done < kPlainBytes; done += kPiece)
      std::fwrite(piece_at(done), 1, kPiece, f);
    std::fclose(f);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPlainBytes));
}

// ---- line reading
void BM_Getline_hostkit(benchmark::State& state) {
  ensure_file(kText, kPlainBytes);
  std::vector<char> line(4096);
  for (auto _ : state) {
    SysFile* file = open_file(kText, 1, SYSFILE_PLAIN, 0);
    int32_t status = 0;
    uint64_t length = 0;
    uint64_t lines = 0;
    while (status == 0) {
      sysfile_getline(file, line.size(), &length, line.data(), &status);
      ++lines;
    }
    benchmark::DoNotOptimize(lines);
    sysfile_close(&file);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPlainBytes));
}
void BM_Getline_glibc(benchmark::State& state) {
  ensure_file(kText, kPlainBytes);
  std::vector<char> buffer(1 << 20);
  for (auto _ : state) {
    FILE* f = std::fopen(kText.c_str(), "rb");
    std::setvbuf(f, buffer.data(), _IOFBF, buffer.size());
    char* line = nullptr;
    size_t capacity = 0;
    uint64_t lines = 0;
    while (getline(&line, &capacity, f) >= 0) ++lines;
    benchmark::DoNotOptimize(lines);
    std::free(line);
    std::fclose(f);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPlainBytes));
}

// ---- compressed writing (4 KiB pieces) and reading (64 KiB requests)
void write_with_hostkit(benchmark::State& state, int32_t kind, int32_t level,
                        const std::string& path) {
  source();
  for (auto _ : state) {
    SysFile* file = open_file(path, 0, kind, level);
    for (uint64_t done = 0; done < kZBytes; done += kPiece)
      sysfile_write(file, kPiece, piece_at(done));
    sysfile_close(&file);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}
void read_with_hostkit(benchmark::State& state, int32_t kind, const std::string& path) {
  std::vector<char> buffer(65536);
  for (auto _ : state) {
    SysFile* file = open_file(path, 1, kind, 0);
    int32_t status = 0;
    uint64_t total = 0;
    while (status == 0) total += sysfile_read(file, buffer.data(), buffer.size(), &status);
    if (total != kZBytes) state.SkipWithError("short read");
    sysfile_close(&file);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}
void run_tool(benchmark::State& state, const std::string& command) {
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("tool failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}

const std::string kGz = kDir + "/hostkit_bench.gz";
const std::string kZst = kDir + "/hostkit_bench.zst";

void BM_GzipWrite_hostkit(benchmark::State& state) {
  write_with_hostkit(state, SYSFILE_GZIP, 6, kGz);
}
void write_gz_with_zlib() {
  gzFile gz = gzopen(kGz.c_str(), "wb6");
  for (uint64_t done = 0; done < kZBytes; done += kPiece) gzwrite(gz, piece_at(done), kPiece);
  gzclose(gz);
}
void BM_GzipWrite_zlib(benchmark::State& state) {
  source();
  for (auto _ : state) write_gz_with_zlib();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}
void BM_GzipWrite_tool(benchmark::State& state) {
  ensure_file(kZText, kZBytes);
  run_tool(state, "gzip -6 -n -c " + kZText + " > " + kGz + ".tool");
}
void BM_GzipRead_hostkit(benchmark::State& state) { read_with_hostkit(state, SYSFILE_GZIP, kGz); }
void BM_GzipRead_zlib(benchmark::State& state) {
  std::vector<char> buffer(65536);
  for (auto _ : state) {
    gzFile gz = gzopen(kGz.c_str(), "rb");
    uint64_t total = 0;
    int n;
    while ((n = gzread(gz, buffer.data(), static_cast<unsigned>(buffer.size()))) > 0)
      total += static_cast<uint64_t>(n);
    if (total != kZBytes) state.SkipWithError("short read");
    gzclose(gz);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}
void BM_GzipRead_tool(benchmark::State& state) {
  run_tool(state, "gzip -dc " + kGz + " > /dev/null");
}

void BM_ZstdWrite_hostkit(benchmark::State& state) {
  write_with_hostkit(state, SYSFILE_ZSTD, 3, kZst);
}
void write_zst_with_zstd() {
  std::vector<char> out(ZSTD_CStreamOutSize());
  FILE* f = std::fopen(kZst.c_str(), "wb");
  ZSTD_CStream* c = ZSTD_createCStream();
  ZSTD_initCStream(c, 3);
  for (uint64_t done = 0; done < kZBytes; done += kPiece) {
    ZSTD_inBuffer in{piece_at(done), kPiece, 0};
    while (in.pos < in.size) {
      ZSTD_outBuffer o{out.data(), out.size(), 0};
      ZSTD_compressStream(c, &o, &in);
      std::fwrite(out.data(), 1, o.pos, f);
    }
  }
  size_t left;
  do {
    ZSTD_outBuffer o{out.data(), out.size(), 0};
    left = ZSTD_endStream(c, &o);
    std::fwrite(out.data(), 1, o.pos, f);
  } while (left > 0);
  ZSTD_freeCStream(c);
  std::fclose(f);
}
void BM_ZstdWrite_zstd(benchmark::State& state) {
  source();
  for (auto _ : state) write_zst_with_zstd();
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}
void BM_ZstdWrite_tool(benchmark::State& state) {
  ensure_file(kZText, kZBytes);
  run_tool(state, "zstd -q -3 --single-thread -f -c " + kZText + " > " + kZst + ".tool");
}
void BM_ZstdRead_hostkit(benchmark::State& state) { read_with_hostkit(state, SYSFILE_ZSTD, kZst); }
void BM_ZstdRead_zstd(benchmark::State& state) {
  std::vector<char> in_buffer(ZSTD_DStreamInSize());
  std::vector<char> out(ZSTD_DStreamOutSize());
  for (auto _ : state) {
    FILE* f = std::fopen(kZst.c_str(), "rb");
    ZSTD_DStream* d = ZSTD_createDStream();
    ZSTD_initDStream(d);
    uint64_t total = 0;
    size_t got;
    while ((got = std::fread(in_buffer.data(), 1, in_buffer.size(), f)) > 0) {
      ZSTD_inBuffer in{in_buffer.data(), got, 0};
      while (in.pos < in.size) {
        ZSTD_outBuffer o{out.data(), out.size(), 0};
        ZSTD_decompressStream(d, &o, &in);
        total += o.pos;
      }
    }
    if (total != kZBytes) state.SkipWithError("short read");
    ZSTD_freeDStream(d);
    std::fclose(f);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kZBytes));
}
void BM_ZstdRead_tool(benchmark::State& state) {
  run_tool(state, "zstd -q -d --single-thread -c " + kZst + " > /dev/null");
}

// ---- UTF-8 to UTF-16
std::string mixed_text(size_t size) {
  static const char* parts[] = {"plain ascii words and numbers 12345 ",
                                "Grüße aus Köln, déjà vu ",
                                "中文字符测试文本 ",
                                "日本語のテキスト ",
                                "emoji \xF0\x9F\x98\x80\xF0\x9F\x8E\x89 ",
                                "more ascii: the quick brown fox "};
  std::string s;
  uint32_t x = 7;
  while (s.size() < size) {
    x = x * 1103515245u + 12345u;
    s += parts[(x >> 16) % 6];
  }
  return s;
}
const std::string& mixed() {
  static const std::string s = mixed_text(4 << 20);
  return s;
}
const std::string& ascii() {
  static const std::string s = make_text(4 << 20);
  return s;
}
void convert_hostkit(benchmark::State& state, const std::string& text) {
  std::vector<uint16_t> out(text.size() + 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        sysutf8_to_utf16(text.c_str(), out.data(), nullptr, out.size(), nullptr));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
void convert_iconv(benchmark::State& state, const std::string& text) {
  iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
  std::vector<char> out(text.size() * 2 + 2);
  for (auto _ : state) {
    char* in = const_cast<char*>(text.data());
    size_t in_left = text.size();
    char* o = out.data();
    size_t out_left = out.size();
    iconv(cd, &in, &in_left, &o, &out_left);
    benchmark::DoNotOptimize(out.data());
  }
  iconv_close(cd);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
void BM_Utf8Mixed_hostkit(benchmark::State& state) { convert_hostkit(state, mixed()); }
void BM_Utf8Mixed_iconv(benchmark::State& state) { convert_iconv(state, mixed()); }
void BM_Utf8Ascii_hostkit(benchmark::State& state) { convert_hostkit(state, ascii()); }
void BM_Utf8Ascii_iconv(benchmark::State& state) { convert_iconv(state, ascii()); }

#define FILE_BENCH(f) BENCHMARK(f)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.5)
FILE_BENCH(BM_PlainWrite_hostkit);
FILE_BENCH(BM_PlainWrite_fwrite);
FILE_BENCH(BM_Getline_hostkit);
FILE_BENCH(BM_Getline_glibc);
FILE_BENCH(BM_GzipWrite_hostkit);
FILE_BENCH(BM_GzipWrite_zlib);
FILE_BENCH(BM_GzipWrite_tool);
FILE_BENCH(BM_GzipRead_hostkit);
FILE_BENCH(BM_GzipRead_zlib);
FILE_BENCH(BM_GzipRead_tool);
FILE_BENCH(BM_ZstdWrite_hostkit);
FILE_BENCH(BM_ZstdWrite_zstd);
FILE_BENCH(BM_ZstdWrite_tool);
FILE_BENCH(BM_ZstdRead_hostkit);
FILE_BENCH(BM_ZstdRead_zstd);
FILE_BENCH(BM_ZstdRead_tool);
BENCHMARK(BM_Utf8Mixed_hostkit)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Utf8Mixed_iconv)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Utf8Ascii_hostkit)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Utf8Ascii_iconv)->Unit(benchmark::kMicrosecond);

// Keeps each benchmark's time per iteration and byte rate for the summary:
// the best of the repetitions (--benchmark_repetitions). The machine only
// ever adds time (write-back, a virtual machine's first touch of memory that
// a big file takes), so the best run is the one that shows the code's cost,
// as bench_memman keeps it too.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string name = run.run_name.str();
      const double time = run.GetAdjustedRealTime();
      if (times.count(name) != 0 && times[name] <= time) continue;
      times[name] = time;
      const auto rate = run.counters.find("bytes_per_second");
      if (rate != run.counters.end()) rates[name] = rate->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
  std::map<std::string, double> rates;
};

}  // namespace

int main(int argc, char** argv) {
  static char interleave[] = "--benchmark_enable_random_interleaving=true";
  std::vector<char*> args(argv, argv + argc);
  args.insert(args.begin() + 1, interleave);
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  RatioReporter reporter;
  // The compressed files that the readers read come from the writers; the
  // text for the tools from the same generator.
  ensure_file(kZText, kZBytes);
  // The readers' input exists before any benchmark runs, whatever their
  // order (--benchmark_enable_random_interleaving shuffles them): written
  // by the libraries used directly, and rewritten by the writers later.
  write_gz_with_zlib();
  write_zst_with_zstd();
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nSpeed ratios (peer time / hostkit time; above 1 means hostkit is faster)\n");
  std::printf("plain %llu MiB, compressed %llu MiB\n",
              static_cast<unsigned long long>(kPlainBytes >> 20),
              static_cast<unsigned long long>(kZBytes >> 20));
  const struct {
    const char* ours;
    const char* peer;
    const char* goal;
  } pairs[] = {
      {"BM_PlainWrite_hostkit", "BM_PlainWrite_fwrite", "goal >= 0.90"},
      {"BM_Getline_hostkit", "BM_Getline_glibc", "goal >= 1.00"},
      {"BM_GzipWrite_hostkit", "BM_GzipWrite_zlib", "goal >= 0.95"},
      {"BM_GzipWrite_hostkit", "BM_GzipWrite_tool", ""},
      {"BM_GzipRead_hostkit", "BM_GzipRead_zlib", "goal >= 0.95"},
      {"BM_GzipRead_hostkit", "BM_GzipRead_tool", ""},
      {"BM_ZstdWrite_hostkit", "BM_ZstdWrite_zstd", "goal >= 0.95"},
      {"BM_ZstdWrite_hostkit", "BM_ZstdWrite_tool", ""},
      {"BM_ZstdRead_hostkit", "BM_ZstdRead_zstd", "goal >= 0.95"},
      {"BM_ZstdRead_hostkit", "BM_ZstdRead_tool", ""},
      {"BM_Utf8Mixed_hostkit", "BM_Utf8Mixed_iconv", "goal >= 2.00"},
      {"BM_Utf8Ascii_hostkit", "BM_Utf8Ascii_iconv", ""},
  };
  for (const auto& p : pairs) {
    auto find = [&](const char* prefix) -> double {
      for (const auto& [name, t] : reporter.times) {
        if (name.rfind(prefix, 0) == 0) return t;
      }
      return 0;
    };
    const double ours = find(p.ours);
    const double peer = find(p.peer);
    if (ours > 0 && peer > 0)
      std::printf("  %-22s vs %-22s %6.2fx  %s\n", p.ours + 3, p.peer + 3, peer / ours, p.goal);
  }
  for (const auto& [name, rate] : reporter.rates) {
    if (name.rfind("BM_Utf8Ascii_hostkit", 0) == 0)
      std::printf("  UTF-8 to UTF-16 on pure ASCII: %.2f GB/s\n", rate / 1e9);
  }
  for (const std::string& path : {kOut, kText, kZText, kGz, kZst, kGz + ".tool", kZst + ".tool"}) {
    std::remove(path.c_str());
  }
  benchmark::Shutdown();
  return 0;
}
