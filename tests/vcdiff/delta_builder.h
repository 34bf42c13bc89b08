#ifndef TOLM_TESTS_VCDIFF_DELTA_BUILDER_H_
#define TOLM_TESTS_VCDIFF_DELTA_BUILDER_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tolm::vcdiff {

/// An integer of the format in its shortest form.
inline std::string Integer(std::uint64_t value) {
  std::string digits(1, static_cast<char>(value & 0x7f));
  while (value >>= 7) {
    digits.insert(digits.begin(), static_cast<char>((value & 0x7f) | 0x80));
  }
  return digits;
}

inline std::string Bytes(std::initializer_list<unsigned int> values) {
  std::string bytes;
  for (const unsigned int value : values) {
    bytes += static_cast<char>(value);
  }
  return bytes;
}

/// A delta as its fields, so that a test can spoil any one of them.
class Fields {
 public:
  struct Field {
    std::string name;
    std::string bytes;
  };

  void Add(const std::string& name, const std::string& bytes) { fields_.push_back({name, bytes}); }
  void Append(const Fields& more) {
    fields_.insert(fields_.end(), more.fields_.begin(), more.fields_.end());
  }

  /// The first field of that name.
  Field& operator[](const std::string& name) {
    const auto found = std::find_if(fields_.begin(), fields_.end(),
                                    [&](const Field& field) { return field.name == name; });
    if (found == fields_.end()) {
      throw std::logic_error("no field " + name);
    }
    return *found;
  }

  /// Where the first field of that name begins.
  std::size_t OffsetOf(const std::string& name) const {
    std::size_t offset = 0;
    for (const Field& field : fields_) {
      if (field.name == name) {
        return offset;
      }
      offset += field.bytes.size();
    }
    throw std::logic_error("no field " + name);
  }

  std::string Encoded() const {
    std::string bytes;
    for (const Field& field : fields_) {
      bytes += field.bytes;
    }
    return bytes;
  }

 private:
  std::vector<Field> fields_;
};

struct HeaderParts {
  unsigned int version = 0;
  std::optional<unsigned int> secondary;
  std::optional<std::string> code_table;  ///< cache sizes and delta
  std::optional<std::string> application;
};

inline Fields Header(const HeaderParts& parts = {}) {
  Fields fields;
  fields.Add("Header1", "\xd6");
  fields.Add("Header2", "\xc3");
  fields.Add("Header3", "\xc4");
  fields.Add("Header4", Bytes({parts.version}));
  fields.Add("Hdr_Indicator", Bytes({(parts.secondary ? 1U : 0U) | (parts.code_table ? 2U : 0U) |
                                     (parts.application ? 4U : 0U)}));
  if (parts.secondary) {
    fields.Add("Secondary compressor ID", Bytes({*parts.secondary}));
  }
  if (parts.code_table) {
    fields.Add("Length of code table data", Integer(parts.code_table->size()));
    fields.Add("Code table data", *parts.code_table);
  }
  if (parts.application) {
    fields.Add("Length of application header", Integer(parts.application->size()));
    fields.Add("Application header", *parts.application);
  }
  return fields;
}

struct WindowParts {
  unsigned int indicator = 0;  ///< 1 source, 2 target, 4 checksum
  std::uint64_t segment_size = 0;
  std::uint64_t segment_position = 0;
  std::uint64_t target_size = 0;
  unsigned int compressed = 0;
  std::string data;
  std::string instructions;
  std::string addresses;
  std::string checksum;  ///< as it is carried
};

inline Fields WindowFields(const WindowParts& parts) {
  Fields encoding;
  encoding.Add("Size of the target window", Integer(parts.target_size));
  encoding.Add("Delta_Indicator", Bytes({parts.compressed}));
  encoding.Add("Length of data for ADDs and RUNs", Integer(parts.data.size()));
  encoding.Add("Length of instructions and sizes", Integer(parts.instructions.size()));
  encoding.Add("Length of addresses for COPYs", Integer(parts.addresses.size()));
  if ((parts.indicator & 4) != 0) {
    encoding.Add("Adler-32 checksum", parts.checksum);
  }
  encoding.Add("data", parts.data);
  encoding.Add("instructions", parts.instructions);
  encoding.Add("addresses", parts.addresses);
  Fields fields;
  fields.Add("Win_Indicator", Bytes({parts.indicator}));
  if ((parts.indicator & 3) != 0) {
    fields.Add("Source segment size", Integer(parts.segment_size));
    fields.Add("Source segment position", Integer(parts.segment_position));
  }
  fields.Add("Length of the delta encoding", Integer(encoding.Encoded().size()));
  fields.Append(encoding);
  return fields;
}

inline Fields Delta(const HeaderParts& header, const std::vector<WindowParts>& windows) {
  Fields fields = Header(header);
  for (const WindowParts& window : windows) {
    fields.Append(WindowFields(window));
  }
  return fields;
}

inline Fields Delta(const WindowParts& window) {
  return Delta(HeaderParts(), {window});
}

inline std::string BigEndian(std::uint32_t value) {
  return Bytes({value >> 24, value >> 16 & 0xff, value >> 8 & 0xff, value & 0xff});
}

/// By its definition.
inline std::uint32_t Adler32(const std::string& bytes, std::uint32_t start = 1) {
  std::uint32_t a = start;
  std::uint32_t b = 0;
  for (const char c : bytes) {
    a = (a + static_cast<unsigned char>(c)) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

/// Codes of the default table.
inline std::string CodeOfRun() {
  return Bytes({0});
}
inline std::string CodeOfAdd() {
  return Bytes({1});
}
inline std::string CodeOfCopy(unsigned int mode) {
  return Bytes({19 + 16 * mode});
}

}  // namespace tolm::vcdiff

#endif  // TOLM_TESTS_VCDIFF_DELTA_BUILDER_H_
