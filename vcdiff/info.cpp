#include "vcdiff/info.h"

#include <cstdio>
#include <sstream>

#include "vcdiff/address_cache.h"
#include "vcdiff/instructions.h"

namespace tolm::vcdiff {

namespace {

/// A sink of InstructionReader that only counts.
class Counter {
 public:
  explicit Counter(WindowInfo& info) : info_(info) {}

  void Add(const std::uint8_t* /*data*/, std::size_t size, std::size_t /*readable*/) {
    Count(info_.adds, size);
  }
  void Run(std::uint8_t /*byte*/, std::size_t size) { Count(info_.runs, size); }
  void Copy(std::uint64_t address, std::size_t size) {
    Count(address < info_.window.segment_size ? info_.segment_copies : info_.target_copies, size);
  }
  void Done() {}

 private:
  static void Count(InstructionCount& count, std::size_t size) {
    ++count.count;
    count.bytes += size;
  }

  WindowInfo& info_;
};

void Add(InstructionCount& sum, const InstructionCount& more) {
  sum.count += more.count;
  sum.bytes += more.bytes;
}

void AddToTotal(Info& info, const WindowInfo& window) {
  Add(info.total.adds, window.adds);
  Add(info.total.runs, window.runs);
  Add(info.total.segment_copies, window.segment_copies);
  Add(info.total.target_copies, window.target_copies);
  info.total.window.target_size += window.window.target_size;
  ++info.window_count;
}

const char* VersionName(Version version) {
  return version == Version::kStandard ? "0" : "S";
}

const char* SegmentName(Segment segment) {
  switch (segment) {
    case Segment::kSource:
      return "source";
    case Segment::kTarget:
      return "target";
    case Segment::kNone:
      break;
  }
  return "none";
}

std::string Hex(std::uint32_t value) {
  char text[11];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned int>(value));
  return text;
}

bool IsPlain(unsigned char byte) {
  return byte >= 0x20 && byte < 0x7f;
}

std::string Quoted(const std::string& bytes, const char* escape_format) {
  std::string text = "\"";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '"' || byte == '\\') {
      text += '\\';
      text += c;
    } else if (IsPlain(byte)) {
      text += c;
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, escape_format, static_cast<unsigned int>(byte));
      text += escape;
    }
  }
  return text + '"';
}

std::string JsonString(const std::string& bytes) {
  return Quoted(bytes, "\\u%04x");
}

void PrintCount(std::ostream& out, const char* name, const InstructionCount& count) {
  out << name << ": " << count.count << " (" << count.bytes << " bytes)";
}

void PrintCounts(std::ostream& out, const WindowInfo& info) {
  PrintCount(out, "ADD", info.adds);
  PrintCount(out, ", RUN", info.runs);
  PrintCount(out, ", COPY from segment", info.segment_copies);
  PrintCount(out, ", COPY from window", info.target_copies);
  out << '\n';
}

void PrintWindow(std::ostream& out, const WindowInfo& info) {
  const Window& window = info.window;
  out << "window " << window.number << " at " << window.offset << ": target "
      << window.target_position << "+" << window.target_size << ", segment "
      << SegmentName(window.segment);
  if (window.segment != Segment::kNone) {
    out << ' ' << window.segment_position << '+' << window.segment_size;
  }
  const char* kNames[kSectionKinds] = {", data ", ", instructions ", ", addresses "};
  for (std::size_t kind = 0; kind < kSectionKinds; ++kind) {
    const Section& section = window.sections[kind];
    out << kNames[kind] << section.length;
    if (section.is_compressed) {
      out << " (LZMA, " << section.size << ')';
    }
  }
  out << ", checksum " << (window.checksum ? Hex(*window.checksum) : "none")
      << (window.is_interleaved ? ", interleaved" : "") << "\n  ";
  PrintCounts(out, info);
}

void JsonCount(std::ostream& out, const char* name, const InstructionCount& count) {
  out << '"' << name << R"(":{"count":)" << count.count << R"(,"bytes":)" << count.bytes << '}';
}

void JsonCounts(std::ostream& out, const WindowInfo& info) {
  out << R"("instructions":{)";
  JsonCount(out, "add", info.adds);
  out << ',';
  JsonCount(out, "run", info.runs);
  out << ',';
  JsonCount(out, "copy_from_segment", info.segment_copies);
  out << ',';
  JsonCount(out, "copy_from_window", info.target_copies);
  out << '}';
}

void JsonSection(std::ostream& out, const char* name, const Section& section) {
  out << ",\"" << name << R"(":{"length":)" << section.length << R"(,"compressed":)"
      << (section.is_compressed ? "true" : "false") << R"(,"decompressed_length":)" << section.size
      << '}';
}

void JsonWindow(std::ostream& out, const WindowInfo& info) {
  const Window& window = info.window;
  out << R"({"offset":)" << window.offset << R"(,"size_bytes":)" << window.size_bytes
      << R"(,"target_position":)" << window.target_position << R"(,"target_size":)"
      << window.target_size << R"(,"segment":")" << SegmentName(window.segment)
      << R"(","segment_position":)" << window.segment_position << R"(,"segment_size":)"
      << window.segment_size << R"(,"interleaved":)" << (window.is_interleaved ? "true" : "false")
      << R"(,"adler32":)";
  if (window.checksum) {
    out << '"' << Hex(*window.checksum) << '"';
  } else {
    out << "null";
  }
  JsonSection(out, "data", window.sections[kData]);
  JsonSection(out, "instruction_section", window.sections[kInstructions]);
  JsonSection(out, "addresses", window.sections[kAddresses]);
  out << ',';
  JsonCounts(out, info);
  out << '}';
}

}  // namespace

Info Inspect(Input& delta, const Limits& limits) {
  WindowReader reader(delta, limits, Nesting::kOutermost);
  Info info;
  info.name = delta.Name();
  info.size_bytes = delta.Size();
  info.header = reader.Header();
  const CodeTable& table = info.header.Table();
  AddressCache cache(table.Near(), table.Same());
  WindowInfo window;
  while (reader.Next(window.window)) {
    reader.Load(window.window);
    Counter counter(window);
    ReadInstructions(window.window, table, cache, counter);
    for (Section& section : window.window.sections) {
      section.bytes = nullptr;
    }
    AddToTotal(info, window);
    if (info.windows.size() < Info::kMaxListed) {
      info.windows.push_back(window);
    }
    window = WindowInfo();
  }
  return info;
}

std::string ToText(const Info& info) {
  const CodeTable& table = info.header.Table();
  std::ostringstream out;
  out << info.name << ": " << info.size_bytes << " bytes\n"
      << "version: " << VersionName(info.header.version) << '\n'
      << "secondary compressor: " << (info.header.is_lzma ? "LZMA" : "none") << '\n'
      << "code table: " << (info.header.own_table ? "application-defined" : "default")
      << ", near cache " << table.Near() << ", same cache " << table.Same() << '\n'
      << "application header: "
      << (info.header.application ? Quoted(*info.header.application, "\\x%02x") : "none") << '\n'
      << "windows: " << info.window_count << ", target " << info.total.window.target_size
      << " bytes\n";
  PrintCounts(out, info.total);
  for (const WindowInfo& window : info.windows) {
    PrintWindow(out, window);
  }
  return out.str();
}

std::string ToJson(const Info& info) {
  const CodeTable& table = info.header.Table();
  std::ostringstream out;
  out << R"({"file":)" << JsonString(info.name) << R"(,"size_bytes":)" << info.size_bytes
      << R"(,"version":")" << VersionName(info.header.version) << R"(","secondary_compressor":)"
      << (info.header.is_lzma ? R"("LZMA")" : "null") << R"(,"code_table":{"application_defined":)"
      << (info.header.own_table ? "true" : "false") << R"(,"near":)" << table.Near()
      << R"(,"same":)" << table.Same() << R"(},"application_header":)"
      << (info.header.application ? JsonString(*info.header.application) : "null")
      << R"(,"window_count":)" << info.window_count << R"(,"target_bytes":)"
      << info.total.window.target_size << ',';
  JsonCounts(out, info.total);
  out << R"(,"windows":[)";
  for (const WindowInfo& window : info.windows) {
    out << (&window == info.windows.data() ? "" : ",");
    JsonWindow(out, window);
  }
  out << "]}\n";
  return out.str();
}

}  // namespace tolm::vcdiff
