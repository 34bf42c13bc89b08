#include <json/value.h>
#include <json/writer.h>
#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "bench/fleet/simulation.h"

// fleet_simulate --unit TIMER-UNIT [--series FILE.tsv] [--trace FILE.tsv] [--quiet] SCENARIO.json
// Writes the result to standard output, as JSON.
namespace tolm::fleet {
namespace {

constexpr char kUsage[] =
    "usage: fleet_simulate --unit TIMER-UNIT [--series FILE] [--trace FILE] [--quiet] SCENARIO";

struct Arguments {
  std::string unit, series, trace, scenario;
  bool quiet = false;
};

Arguments Parse(int count, char** words) {
  Arguments arguments;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    std::string* value = word == "--unit"     ? &arguments.unit
                         : word == "--series" ? &arguments.series
                         : word == "--trace"  ? &arguments.trace
                                              : nullptr;
    if (word == "--quiet") {
      arguments.quiet = true;
    } else if (value != nullptr && i + 1 < count) {
      *value = words[++i];
    } else if (word.rfind("--", 0) != 0 && arguments.scenario.empty()) {
      arguments.scenario = word;
    } else {
      throw std::runtime_error(kUsage);
    }
  }
  if (arguments.unit.empty() || arguments.scenario.empty()) {
    throw std::runtime_error(kUsage);
  }
  return arguments;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  if (!in) {
    throw std::runtime_error(path + ": cannot be read");
  }
  return text.str();
}

std::ofstream Create(const std::string& path) {
  std::ofstream out(path);
  if (!out) {
    throw std::runtime_error(path + ": cannot be written");
  }
  return out;
}

void Close(std::ofstream& out, const std::string& path) {
  out.close();
  if (!out) {
    throw std::runtime_error(path + ": cannot be written");
  }
}

Json::Value ToJson(const Counts& counts) {
  Json::Value value;
  value["runs"] = Json::Int64(counts.runs);
  value["held_back"] = Json::Int64(counts.held_back);
  value["succeeded"] = Json::Int64(counts.succeeded);
  value["failed"] = Json::Int64(counts.failed);
  for (int kind = 0; kind < kKinds; ++kind) {
    value["requests"][NameOf(static_cast<Kind>(kind))] =
        Json::Int64(counts.requests[static_cast<std::size_t>(kind)]);
  }
  value["refused"] = Json::Int64(counts.refused);
  value["reset"] = Json::Int64(counts.reset);
  value["given_up"] = Json::Int64(counts.given_up);
  value["sent_bytes"] = Json::Int64(counts.sent_bytes);
  value["site_bytes"] = Json::Int64(counts.site_bytes);
  value["most_under_way"] = Json::Int64(counts.busy);
  return value;
}

Json::Value ToJson(const Peak& peak) {
  Json::Value value;
  value["value"] = Json::Int64(peak.value);
  value["at"] = Json::Int64(peak.at);
  return value;
}

Json::Value ToJson(const Reached& release) {
  Json::Value value;
  value["version"] = release.version;
  value["at"] = Json::Int64(release.at);
  value["devices"] = release.count;
  const char* names[] = {"seconds_50", "seconds_90", "seconds_99"};
  for (std::size_t i = 0; i < release.after.size(); ++i) {
    value[names[i]] =
        release.after[i] == kNever ? Json::Value() : Json::Value(Json::Int64(release.after[i]));
  }
  return value;
}

Json::Value ToJson(const Scenario& scenario, const Result& result) {
  Json::Value value;
  value["name"] = scenario.name;
  value["devices"] = scenario.devices;
  value["seconds"] = Json::Int64(scenario.seconds);
  value["seed"] = Json::UInt64(scenario.seed);
  value["timer"]["period"] = Json::Int64(scenario.timer.period);
  value["timer"]["delay"] = Json::Int64(scenario.timer.delay);
  value["timer"]["fixed"] = scenario.timer.fixed;
  value["timer"]["persistent"] = scenario.timer.persistent;
  value["all"] = ToJson(result.all);
  value["peak_requests"] = ToJson(result.requests);
  value["peak_bytes"] = ToJson(result.bytes);
  for (int kind = 0; kind < kKinds; ++kind) {
    value["received_bytes"][NameOf(static_cast<Kind>(kind))] =
        Json::Int64(result.received_bytes[static_cast<std::size_t>(kind)]);
  }
  value["wasted_bytes"] = Json::Int64(result.wasted_bytes);
  value["under_way_bytes"] = Json::Int64(result.under_way_bytes);
  value["releases"] = Json::Value(Json::arrayValue);
  for (const Reached& release : result.releases) {
    value["releases"].append(ToJson(release));
  }
  return value;
}

void WriteSeries(const std::string& path, const Scenario& scenario, const Result& result) {
  std::ofstream out = Create(path);
  out << "second\truns\theld_back\tdescription\tdelta\tfull\trefused\treset\tgiven_up\tsent_bytes\t"
         "site_bytes\tunder_way";
  for (const Reached& release : result.releases) {
    out << "\thave_" << release.version;
  }
  for (std::size_t i = 0; i < result.series.size(); ++i) {
    const Counts& one = result.series[i];
    out << '\n'
        << static_cast<Seconds>(i) * scenario.series_seconds << '\t' << one.runs << '\t'
        << one.held_back;
    for (const std::int64_t requests : one.requests) {
      out << '\t' << requests;
    }
    out << '\t' << one.refused << '\t' << one.reset << '\t' << one.given_up << '\t'
        << one.sent_bytes << '\t' << one.site_bytes << '\t' << one.busy;
    for (const Reached& release : result.releases) {
      out << '\t' << release.devices[i];
    }
  }
  out << '\n';
  Close(out, path);
}

double ProcessorSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

Json::Value Cost(std::chrono::steady_clock::time_point begin) {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  Json::Value cost;
  cost["seconds"] = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  cost["processor_seconds"] = ProcessorSeconds();
  cost["peak_kib"] = Json::Int64(usage.ru_maxrss);
  return cost;
}

void Main(const Arguments& arguments) {
  const auto begin = std::chrono::steady_clock::now();
  const Scenario scenario = ParseScenario(ReadAll(arguments.scenario), ReadAll(arguments.unit));
  std::ofstream trace;
  Simulation::Trace tell;
  if (!arguments.trace.empty()) {
    trace = Create(arguments.trace);
    tell = [&](Seconds now, std::uint32_t device, const char* what, int value) {
      trace << now << '\t' << device << '\t' << what << '\t' << value << '\n';
    };
  }
  Simulation simulation(scenario, tell);
  const Result result = simulation.Run([&](Seconds now) {
    if (!arguments.quiet) {
      std::cerr << scenario.name << ": day " << now / kDay << " is over\n";
    }
  });
  if (trace.is_open()) {
    Close(trace, arguments.trace);
  }
  if (!arguments.series.empty()) {
    WriteSeries(arguments.series, scenario, result);
  }
  Json::Value value = ToJson(scenario, result);
  value["cost"] = Cost(begin);
  std::cout << value << std::endl;
}

}  // namespace
}  // namespace tolm::fleet

int main(int count, char** words) try {
  tolm::fleet::Main(tolm::fleet::Parse(count, words));
  return std::cout ? 0 : 1;
} catch (const std::exception& error) {
  std::cerr << "fleet_simulate: " << error.what() << '\n';
  return 1;
}
