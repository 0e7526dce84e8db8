// The benchmarks' runner: runs each case's contenders in randomly interleaved repetitions, and
// prints one row a case. A contender's time is the median of its repetitions, in wall time.
//
//     psp_bench [--smoke] [--list] [--repetitions N] [--table FILE] [FILTER...]
//
// FILTER is a part of a case's name. --smoke runs each contender for a moment and compares their
// digests; it fails when digests differ or a case has no peer. --table also writes the rows as a
// Markdown table. Missed aims are marked and counted but are no failure: they depend on the
// machine.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <string_view>

#include "bench.h"
#include "psp.h"

namespace psp_bench {
namespace {

constexpr int kSmokeIterations = 10;
constexpr char kSecondsPerRepetition[] = "0.05";

struct Case {
  std::string name;
  std::vector<Contender> contenders;
  Options options;
};

struct Times {
  double median_ns = 0;
  double spread = 0;  // half the distance between the quartiles, relative to the median
};

// What one contender has shown in the case under way.
struct Outcome {
  std::vector<double> times_ns;  // one for each repetition
  uint64_t digest = 0;           // of the last run, summed over its threads
  std::string error;
};

struct Command {
  bool smoke = false;
  bool list = false;
  int repetitions = 9;
  std::string table;
  std::vector<std::string> filters;
};

std::vector<Case> &cases() {
  static std::vector<Case> all;
  return all;
}

std::vector<void (*)()> &registrations() {
  static std::vector<void (*)()> all;
  return all;
}

// ---- Running ------------------------------------------------------------------------------------

// Takes Google Benchmark's measurements of one case. Contenders run under their index as name.
class Collector : public benchmark::BenchmarkReporter {
 public:
  explicit Collector(std::vector<Outcome> *outcomes) : outcomes_(*outcomes) {}

  bool ReportContext(const Context &) override { return true; }

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      Outcome &outcome = outcomes_.at(std::stoul(run.run_name.function_name));
      if (run.error_occurred) {
        outcome.error = run.error_message;
        continue;
      }
      // Google Benchmark divides the time that passed by the iterations of all threads together.
      const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
      outcome.times_ns.push_back(seconds * 1e9 * static_cast<double>(run.threads));
    }
  }

 private:
  std::vector<Outcome> &outcomes_;
};

std::vector<Outcome> run_case(const Case &c, const Command &command) {
  std::vector<Outcome> outcomes(c.contenders.size());
  std::mutex mutex;  // guards the digests
  benchmark::ClearRegisteredBenchmarks();
  for (size_t i = 0; i < c.contenders.size(); ++i) {
    const auto run = [&, i](benchmark::State &state) {
      const uint64_t result = c.contenders[i].run(state);
      const std::lock_guard guard(mutex);
      outcomes[i].digest += result;
    };
    auto *registered = benchmark::RegisterBenchmark(std::to_string(i).c_str(), run);
    registered->UseRealTime()->Threads(c.options.threads);
    if (command.smoke) registered->Iterations(kSmokeIterations)->Repetitions(1);
  }
  Collector collector(&outcomes);
  benchmark::RunSpecifiedBenchmarks(&collector);
  return outcomes;
}

Times times_of(std::vector<double> sample) {
  if (sample.empty()) return {};
  std::sort(sample.begin(), sample.end());
  const size_t n = sample.size();
  const double median = (sample[(n - 1) / 2] + sample[n / 2]) / 2;
  return {median, (sample[3 * n / 4] - sample[n / 4]) / 2 / median};
}

// ---- Smoke --------------------------------------------------------------------------------------

// True when all contenders of the case ran and did the same work.
bool smoke_holds(const Case &c, const std::vector<Outcome> &outcomes) {
  bool holds = c.contenders.size() > 1;
  if (!holds) std::printf("FAILED: %s: no peer\n", c.name.c_str());
  for (size_t i = 0; i < outcomes.size(); ++i) {
    const Outcome &outcome = outcomes[i];
    const char *name = c.contenders[i].name.c_str();
    if (!outcome.error.empty() || outcome.times_ns.empty()) {
      std::printf("FAILED: %s: %s: %s\n", c.name.c_str(), name,
                  outcome.error.empty() ? "did not run" : outcome.error.c_str());
      holds = false;
    } else if (outcome.digest != outcomes[0].digest) {
      std::printf("FAILED: %s: %s gives %016llx, %s %016llx\n", c.name.c_str(),
                  c.contenders[0].name.c_str(), static_cast<unsigned long long>(outcomes[0].digest),
                  name, static_cast<unsigned long long>(outcome.digest));
      holds = false;
    }
  }
  return holds;
}

// ---- The table ----------------------------------------------------------------------------------

std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char *format, ...) {
  char buffer[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

std::string time_text(double ns) {
  if (ns < 1e3) return text("%.1f ns", ns);
  if (ns < 1e6) return text("%.2f us", ns / 1e3);
  return text("%.2f ms", ns / 1e6);
}

struct Row {
  std::string name, psp, spread, of_best, peers;
  int missed = 0;
  std::string error;
};

Row row_of(const Case &c, const std::vector<Outcome> &outcomes) {
  Row row;
  row.name = c.name;
  for (size_t i = 0; i < outcomes.size(); ++i) {
    if (outcomes[i].error.empty() && !outcomes[i].times_ns.empty()) continue;
    row.error = c.contenders[i].name + ": " +
                (outcomes[i].error.empty() ? "did not run" : outcomes[i].error);
    return row;
  }
  const Times own = times_of(outcomes[0].times_ns);
  row.psp = time_text(own.median_ns);
  row.spread = text("%.1f%%", own.spread * 100);
  double best_ns = 0;
  for (size_t i = 1; i < outcomes.size(); ++i) {
    const double peer_ns = times_of(outcomes[i].times_ns).median_ns;
    if (best_ns == 0 || peer_ns < best_ns) best_ns = peer_ns;
    const double ratio = own.median_ns / peer_ns;
    const double aim = c.contenders[i].at_most;
    if (!row.peers.empty()) row.peers += "; ";
    row.peers += c.contenders[i].name + " " + time_text(peer_ns) + text(", %.2f", ratio);
    if (aim > 0) row.peers += text(" (aim %.2f%s)", aim, ratio > aim ? ", MISSED" : "");
    if (aim > 0 && ratio > aim) ++row.missed;
  }
  row.of_best = best_ns > 0 ? text("%.2f", own.median_ns / best_ns) : "no peer";
  return row;
}

class Table {
 public:
  Table(const Command &command, size_t name_width) : name_width_(static_cast<int>(name_width)) {
    if (!command.table.empty()) file_.open(command.table);
    const std::string head = machine() + text("; median of %d interleaved repetitions of %s s\n",
                                              command.repetitions, kSecondsPerRepetition);
    std::printf("%s\n%-*s %10s %7s %8s  %s\n", head.c_str(), name_width_, "case", "psp", "spread",
                "of best", "peer, its time, psp's share of it");
    file_ << head << "\n| case | psp | spread | of best | peer, its time, psp's share of it |\n"
          << "|---|---:|---:|---:|---|\n";
  }

  void add(const Row &row) {
    if (!row.error.empty()) {
      std::printf("%-*s FAILED: %s\n", name_width_, row.name.c_str(), row.error.c_str());
      file_ << "| " << row.name << " | failed: " << row.error << " | | | |\n";
    } else {
      std::printf("%-*s %10s %7s %8s  %s\n", name_width_, row.name.c_str(), row.psp.c_str(),
                  row.spread.c_str(), row.of_best.c_str(), row.peers.c_str());
      file_ << "| " << row.name << " | " << row.psp << " | " << row.spread << " | " << row.of_best
            << " | " << row.peers << " |\n";
    }
    std::fflush(stdout);
    file_.flush();
  }

 private:
  static std::string machine() {
    std::ifstream processors("/proc/cpuinfo");
    std::string model = "unknown processor";
    for (std::string line; std::getline(processors, line);) {
      if (line.rfind("model name", 0) != 0) continue;
      model = line.substr(line.find(':') + 2);
      break;
    }
    const std::time_t now = std::time(nullptr);
    char day[16];
    std::strftime(day, sizeof day, "%Y-%m-%d", std::localtime(&now));
    return model + text(", %d cores, compiler %s, %s", benchmark::CPUInfo::Get().num_cpus,
                        __VERSION__, day);
  }

  std::ofstream file_;
  int name_width_;
};

// ---- Command line -------------------------------------------------------------------------------

bool parse(int argc, char **argv, Command *command) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    const bool has_value = i + 1 < argc;
    if (word == "--smoke") {
      command->smoke = true;
    } else if (word == "--list") {
      command->list = true;
    } else if (word == "--table" && has_value) {
      command->table = argv[++i];
    } else if (word == "--repetitions" && has_value) {
      command->repetitions = std::atoi(argv[++i]);
    } else if (word.substr(0, 1) == "-") {
      return false;
    } else {
      command->filters.emplace_back(word);
    }
  }
  return command->repetitions > 0;
}

bool selected(const Case &c, const Command &command) {
  return command.filters.empty() ||
         std::any_of(command.filters.begin(), command.filters.end(),
                     [&](const auto &filter) { return c.name.find(filter) != std::string::npos; });
}

void set_up_google_benchmark(const Command &command) {
  std::string repetitions = "--benchmark_repetitions=" + std::to_string(command.repetitions);
  std::string seconds = std::string("--benchmark_min_time=") + kSecondsPerRepetition;
  std::string program = "psp_bench", interleaving = "--benchmark_enable_random_interleaving=true";
  std::vector<char *> arguments = {program.data(), repetitions.data(), seconds.data(),
                                   interleaving.data(), nullptr};
  int count = static_cast<int>(arguments.size()) - 1;
  benchmark::Initialize(&count, arguments.data());
}

// The exit status: 0 if every selected case ran and, with --smoke, did the same work as its peers.
int run_all(const Command &command) {
  set_up_google_benchmark(command);
  size_t name_width = 0;
  for (const Case &c : cases()) {
    if (selected(c, command)) name_width = std::max(name_width, c.name.size());
  }
  if (name_width == 0) {
    std::fprintf(stderr, "psp_bench: no such case (--list tells their names)\n");
    return 1;
  }
  std::unique_ptr<Table> table;
  if (!command.smoke) table = std::make_unique<Table>(command, name_width);
  int ran = 0, failed = 0, missed = 0;
  for (const Case &c : cases()) {
    if (!selected(c, command)) continue;
    ++ran;
    const std::vector<Outcome> outcomes = run_case(c, command);
    if (command.smoke) {
      if (!smoke_holds(c, outcomes)) ++failed;
      continue;
    }
    const Row row = row_of(c, outcomes);
    table->add(row);
    missed += row.missed;
    if (!row.error.empty()) ++failed;
  }
  if (command.smoke) {
    std::printf("%d cases, %d failed\n", ran, failed);
  } else {
    std::printf("\n%d cases, %d aims missed, %d failed\n", ran, missed, failed);
  }
  return failed == 0 ? 0 : 1;
}

}  // namespace

void add_case(const std::string &name, std::vector<Contender> contenders, Options options) {
  cases().push_back({name, std::move(contenders), options});
}

Registration::Registration(void (*register_cases)()) { registrations().push_back(register_cases); }

uint64_t digest(const void *data, size_t size) {
  constexpr uint64_t kOffsetBasis = 0xcbf29ce484222325u, kPrime = 0x100000001b3u;
  const auto *bytes = static_cast<const unsigned char *>(data);
  uint64_t hash = kOffsetBasis;
  for (size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * kPrime;
  return hash;
}

}  // namespace psp_bench

int main(int argc, char **argv) {
  using namespace psp_bench;
  Command command;
  if (!parse(argc, argv, &command)) {
    std::fprintf(stderr,
                 "usage: psp_bench [--smoke] [--list] [--repetitions N] [--table FILE] "
                 "[FILTER...]\n");
    return 2;
  }
  if (psp_init() != PSP_OKAY) return 1;
  for (const auto register_cases : registrations()) register_cases();
  int result = 0;
  if (command.list) {
    for (const Case &c : cases()) std::printf("%s\n", c.name.c_str());
  } else {
    result = run_all(command);
  }
  psp_term();
  return result;
}
