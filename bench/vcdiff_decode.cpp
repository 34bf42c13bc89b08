// Measures the VCDIFF decoder as a whole process against xdelta3's and against cp of the target.
//
//   vcdiff_decode [--size MEGABYTES] [--runs N] [--directory DIR] [--also NAME=COMMAND]... DECODER
//
// Workloads (fixed seeds, source of the given size, deltas made by `xdelta3 -e -S none`):
//   long-copies    a few bytes changed here and there: what a small delta is
//   short-copies   a table of records, every fifth of them changed in one field
//   additions      three quarters of the target are new and random
//   runs           pages of one byte each, changed from source to target
//   self-copies    new text that repeats itself
//   real-data      the system's own libraries and programs, shuffled by files
//   long-copies-lzma, additions-lzma: the same with LZMA
//
// COMMAND is run by the shell, with $SOURCE, $OUTPUT and $DELTA in its environment. Per program the
// median of the runs, taken in turns. Memory is the largest anonymous memory (file mappings left
// out) seen in a run of its own that is not measured.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Seconds = std::chrono::duration<double>;

struct Settings {
  std::size_t size_bytes = 200U << 20;
  int runs = 9;
  fs::path directory = "/tmp";
  std::string decoder;
  std::vector<std::pair<std::string, std::string>> others;
};

// ---- Workloads.

class Generator {
 public:
  explicit Generator(std::uint64_t seed) : random_(seed) {}
  std::size_t Below(std::size_t limit) { return random_() % limit; }
  void Fill(std::string& bytes, std::size_t from, std::size_t size) {
    for (std::size_t i = from; i < from + size; ++i) {
      bytes[i] = static_cast<char>(random_());
    }
  }

 private:
  std::mt19937_64 random_;
};

using Pair = std::pair<std::string, std::string>;

Pair LongCopies(std::size_t size) {
  Generator generator(1);
  std::string source(size, '\0');
  generator.Fill(source, 0, size);
  std::string target = source;
  for (int change = 0; change < 50; ++change) {
    generator.Fill(target, generator.Below(size - 10), 10);
  }
  return {source, target};
}

Pair ShortCopies(std::size_t size) {
  Generator generator(2);
  std::string source;
  std::string target;
  source.reserve(size + 100);
  char record[128];
  for (std::size_t i = 0; source.size() < size; ++i) {
    const std::size_t key = generator.Below(1000000000);
    const auto format = [&](std::size_t value) {
      std::snprintf(record, sizeof record, "%09zu|vendor %zu|%08zx\n", i * 37, value, key);
      return record;
    };
    const std::size_t value = generator.Below(100000);
    source += format(value);
    target += format(generator.Below(5) == 0 ? generator.Below(100000) : value);
  }
  return {source, target};
}

Pair Additions(std::size_t size) {
  Pair pair = LongCopies(size);
  Generator generator(3);
  for (std::size_t at = 0; at + 100000 < size; at += 100000) {
    generator.Fill(pair.second, at, 75000);
  }
  return pair;
}

Pair Runs(std::size_t size) {
  Generator generator(4);
  std::string source(size, '\0');
  std::string target(size, '\0');
  for (std::size_t at = 0; at < size; at += 4096) {
    const std::size_t page = std::min<std::size_t>(4096, size - at);
    std::fill_n(source.begin() + static_cast<std::ptrdiff_t>(at), page,
                static_cast<char>(generator.Below(256)));
    std::fill_n(target.begin() + static_cast<std::ptrdiff_t>(at), page,
                static_cast<char>(generator.Below(256)));
  }
  return {source, target};
}

Pair SelfCopies(std::size_t size) {
  Generator generator(5);
  std::string source(size, '\0');
  generator.Fill(source, 0, size);
  std::string words(64U << 10, '\0');
  generator.Fill(words, 0, words.size());
  std::string target;
  target.reserve(size + 400);
  while (target.size() < size) {
    target.append(words, generator.Below(words.size() - 400), 20 + generator.Below(380));
  }
  return {source, target};
}

std::vector<std::string> RealFiles(std::size_t size) {
  std::vector<std::string> paths;
  for (const char* root : {"/usr/bin", "/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu"}) {
    if (fs::is_directory(root)) {
      for (const auto& entry : fs::directory_iterator(root)) {
        if (entry.is_regular_file() && !entry.is_symlink()) {
          paths.push_back(entry.path());
        }
      }
    }
  }
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> files;
  std::size_t total = 0;
  for (const std::string& path : paths) {
    std::ifstream in(path, std::ios::binary);
    files.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    total += files.back().size();
    if (total >= size) {
      break;
    }
  }
  return files;
}

// A tenth of the files is left out on either side; neighbours change places.
Pair RealData(std::size_t size) {
  Generator generator(6);
  std::vector<std::string> files = RealFiles(size);
  Pair pair;
  for (const std::string& file : files) {
    if (generator.Below(10) != 0) {
      pair.first += file;
    }
  }
  for (std::size_t i = 0; i + 1 < files.size(); i += 2) {
    std::swap(files[i], files[i + 1]);
  }
  for (const std::string& file : files) {
    if (generator.Below(10) != 0) {
      pair.second += file;
    }
  }
  return pair;
}

struct Workload {
  const char* name;
  std::function<Pair(std::size_t)> make;
  const char* compressor;
};

const Workload kWorkloads[] = {
    {"long-copies", LongCopies, "none"},      {"short-copies", ShortCopies, "none"},
    {"additions", Additions, "none"},         {"runs", Runs, "none"},
    {"self-copies", SelfCopies, "none"},      {"real-data", RealData, "none"},
    {"long-copies-lzma", LongCopies, "lzma"}, {"additions-lzma", Additions, "lzma"},
};

// ---- Processes.

struct Program {
  std::string name;
  std::vector<std::string> arguments;
  std::vector<double> seconds;
  std::vector<double> cpu_seconds;
  long memory_kib = 0;
};

pid_t Start(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot run " + arguments[0]);
  }
  return pid;
}

void ExpectSuccess(int status, const std::string& name) {
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(name + " failed");
  }
}

double SecondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void Run(const std::vector<std::string>& arguments) {
  int status = 0;
  waitpid(Start(arguments), &status, 0);
  ExpectSuccess(status, arguments[0]);
}

void Measure(Program& program) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = Start(program.arguments);
  int status = 0;
  rusage usage = {};
  wait4(pid, &status, 0, &usage);
  program.seconds.push_back(Seconds(std::chrono::steady_clock::now() - start).count());
  program.cpu_seconds.push_back(SecondsOf(usage.ru_utime) + SecondsOf(usage.ru_stime));
  ExpectSuccess(status, program.name);
}

long AnonymousKib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("RssAnon:", 0) == 0) {
      return std::atol(line.c_str() + 8);
    }
  }
  return 0;
}

void MeasureMemory(Program& program) {
  const pid_t pid = Start(program.arguments);
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    program.memory_kib = std::max(program.memory_kib, AnonymousKib(pid));
    usleep(500);
  }
  ExpectSuccess(status, program.name);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// ---- The table.

bool SameContent(const fs::path& one, const fs::path& other) {
  std::ifstream a(one, std::ios::binary);
  std::ifstream b(other, std::ios::binary);
  return fs::file_size(one) == fs::file_size(other) &&
         std::equal(std::istreambuf_iterator<char>(a), std::istreambuf_iterator<char>(),
                    std::istreambuf_iterator<char>(b));
}

std::vector<Program> Programs(const Settings& settings, const std::string& source,
                              const std::string& output, const std::string& delta,
                              const std::string& target) {
  std::vector<Program> programs = {
      {"this", {settings.decoder, "decode", source, output, delta}, {}, {}},
      {"xdelta3", {"xdelta3", "-d", "-f", "-s", source, delta, output}, {}, {}},
      {"cp", {"cp", target, output}, {}, {}},
  };
  for (const auto& [name, command] : settings.others) {
    programs.push_back({name, {"sh", "-c", command}, {}, {}});
  }
  return programs;
}

void Print(const std::vector<Program>& programs) {
  const double mine = Median(programs.front().seconds);
  const double my_cpu = Median(programs.front().cpu_seconds);
  for (const Program& program : programs) {
    const double seconds = Median(program.seconds);
    const double cpu = Median(program.cpu_seconds);
    std::printf("  %-10s %8.1f ms  (x%5.2f)   cpu %8.1f ms  (x%5.2f)   %8.1f MiB\n",
                program.name.c_str(), seconds * 1e3, seconds / mine, cpu * 1e3, cpu / my_cpu,
                static_cast<double>(program.memory_kib) / 1024);
  }
  std::fflush(stdout);
}

void WriteWhole(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

void RunWorkload(const Workload& workload, const Settings& settings, const fs::path& directory) {
  const fs::path source = directory / "source";
  const fs::path target = directory / "target";
  const fs::path delta = directory / "delta";
  const fs::path output = directory / "output";
  {
    const Pair pair = workload.make(settings.size_bytes);
    WriteWhole(source, pair.first);
    WriteWhole(target, pair.second);
  }
  Run({"xdelta3", "-e", "-f", "-q", "-S", workload.compressor, "-s", source, target, delta});
  std::printf("%s: source %zu, target %zu, delta %zu bytes\n", workload.name,
              static_cast<std::size_t>(fs::file_size(source)),
              static_cast<std::size_t>(fs::file_size(target)),
              static_cast<std::size_t>(fs::file_size(delta)));
  setenv("SOURCE", source.c_str(), 1);
  setenv("OUTPUT", output.c_str(), 1);
  setenv("DELTA", delta.c_str(), 1);
  std::vector<Program> programs = Programs(settings, source, output, delta, target);
  for (Program& program : programs) {
    fs::remove(output);
    MeasureMemory(program);
    if (!SameContent(output, target)) {
      throw std::runtime_error(program.name + " made something else");
    }
  }
  for (int run = 0; run < settings.runs; ++run) {
    for (Program& program : programs) {
      fs::remove(output);
      Measure(program);
    }
  }
  Print(programs);
}

Settings Parse(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const bool has_value = option.rfind("--", 0) == 0;
    if (has_value && i + 1 == argc) {
      throw std::runtime_error(option + " wants a value");
    }
    const std::string value = has_value ? argv[++i] : "";
    if (option == "--size") {
      settings.size_bytes = std::stoul(value) << 20;
    } else if (option == "--runs") {
      settings.runs = std::stoi(value);
    } else if (option == "--directory") {
      settings.directory = value;
    } else if (option == "--also") {
      const std::size_t equals = value.find('=');
      if (equals == std::string::npos) {
        throw std::runtime_error("--also wants NAME=COMMAND");
      }
      settings.others.emplace_back(value.substr(0, equals), value.substr(equals + 1));
    } else {
      settings.decoder = option;
    }
  }
  if (settings.decoder.empty() || settings.runs < 1 || settings.size_bytes == 0) {
    throw std::runtime_error(
        "usage: vcdiff_decode [--size MEGABYTES] [--runs N] [--directory DIR] "
        "[--also NAME=COMMAND]... DECODER");
  }
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Settings settings = Parse(argc, argv);
    std::string name = settings.directory / "vcdiff-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot make " + name);
    }
    const fs::path directory = name;
    try {
      for (const Workload& workload : kWorkloads) {
        RunWorkload(workload, settings, directory);
      }
    } catch (...) {
      fs::remove_all(directory);
      throw;
    }
    fs::remove_all(directory);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vcdiff_decode: %s\n", error.what());
    return 1;
  }
}
