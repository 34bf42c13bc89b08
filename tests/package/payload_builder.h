#ifndef TOLM_TESTS_PACKAGE_PAYLOAD_BUILDER_H_
#define TOLM_TESTS_PACKAGE_PAYLOAD_BUILDER_H_

#include <archive.h>
#include <archive_entry.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tolm::testing {

constexpr char kGoodSeal[] = R"({"name":"oui","kind":"full","version":7})";

/// Writes payloads as a publisher without scruples would: any member, any order.
class PayloadBuilder {
 public:
  enum class Filter { kNone, kGzip, kXz, kZstd, kBzip2 };

  explicit PayloadBuilder(Filter filter = Filter::kZstd) : archive_(archive_write_new()) {
    archive_write_set_format_pax(archive_);
    AddFilter(filter);
    Check(archive_write_set_format_option(archive_, "pax", "hdrcharset", "BINARY"));
    archive_write_set_bytes_in_last_block(archive_, 1);
    Check(archive_write_open2(archive_, this, nullptr, Write, nullptr, nullptr));
  }
  ~PayloadBuilder() { archive_write_free(archive_); }
  PayloadBuilder(const PayloadBuilder&) = delete;
  PayloadBuilder& operator=(const PayloadBuilder&) = delete;

  PayloadBuilder& Seal(const std::string& text = kGoodSeal) { return File(".tolmpkg", text); }

  PayloadBuilder& File(const std::string& name, const std::string& content, unsigned mode = 0644) {
    archive_entry* entry = NewEntry(name, AE_IFREG, mode);
    archive_entry_set_size(entry, static_cast<la_int64_t>(content.size()));
    return Add(entry, content);
  }

  PayloadBuilder& Directory(const std::string& name, unsigned mode = 0755) {
    return Add(NewEntry(name, AE_IFDIR, mode), "");
  }

  PayloadBuilder& SymbolicLink(const std::string& name, const std::string& target) {
    archive_entry* entry = NewEntry(name, AE_IFLNK, 0777);
    archive_entry_set_symlink(entry, target.c_str());
    return Add(entry, "");
  }

  PayloadBuilder& HardLink(const std::string& name, const std::string& target) {
    archive_entry* entry = NewEntry(name, AE_IFREG, 0644);
    archive_entry_set_hardlink(entry, target.c_str());
    return Add(entry, "");
  }

  PayloadBuilder& Special(const std::string& name, unsigned type) {
    archive_entry* entry = NewEntry(name, type, 0644);
    archive_entry_set_rdevmajor(entry, 1);
    archive_entry_set_rdevminor(entry, 3);
    return Add(entry, "");
  }

  /// Uncompressed only, and last of all: a hard link that brings data, which the archive library
  /// does not write. Returns the finished payload.
  static std::string WithHardLinkBody(std::string payload, const std::string& name,
                                      const std::string& target, const std::string& body) {
    payload.resize(payload.size() - kEndBytes);
    return payload + RawMember('1', name, target, body) + std::string(kEndBytes, '\0');
  }

  /// So does this with a file of `size` bytes whose parts stand at any places, in any order.
  static std::string WithSparseFile(
      std::string payload, const std::string& name, std::uint64_t size,
      const std::vector<std::pair<std::uint64_t, std::string>>& parts) {
    std::string map;
    std::string body;
    for (const auto& [offset, part] : parts) {
      map += (map.empty() ? "" : ",") + std::to_string(offset) + ',' + std::to_string(part.size());
      body += part;
    }
    const std::string extension = ExtendedRecord("GNU.sparse.size", std::to_string(size)) +
                                  ExtendedRecord("GNU.sparse.map", map);
    payload.resize(payload.size() - kEndBytes);
    return payload + RawMember('x', "extension", "", extension) + RawMember('0', name, "", body) +
           std::string(kEndBytes, '\0');
  }

  /// A file of `size` bytes that holds `tail` at its end and nothing before.
  PayloadBuilder& SparseFile(const std::string& name, la_int64_t size, const std::string& tail) {
    archive_entry* entry = NewEntry(name, AE_IFREG, 0644);
    const auto tail_size = static_cast<la_int64_t>(tail.size());
    archive_entry_set_size(entry, size);
    archive_entry_sparse_add_entry(entry, size - tail_size, tail_size);
    Check(archive_write_header(archive_, entry));
    archive_entry_free(entry);
    // The writer takes the whole file and keeps the parts that were announced.
    const std::string zeros(65536, '\0');
    for (la_int64_t rest = size - tail_size; rest > 0;) {
      const auto part = static_cast<std::size_t>(rest < static_cast<la_int64_t>(zeros.size())
                                                     ? rest
                                                     : static_cast<la_int64_t>(zeros.size()));
      archive_write_data(archive_, zeros.data(), part);
      rest -= static_cast<la_int64_t>(part);
    }
    archive_write_data(archive_, tail.data(), tail.size());
    return *this;
  }

  /// A file of zeros that are really packed.
  PayloadBuilder& Zeros(const std::string& name, la_int64_t size) {
    archive_entry* entry = NewEntry(name, AE_IFREG, 0644);
    archive_entry_set_size(entry, size);
    Add(entry, "");
    const std::string zeros(1024 * 1024, '\0');
    for (la_int64_t rest = size; rest > 0; rest -= static_cast<la_int64_t>(zeros.size())) {
      archive_write_data(archive_, zeros.data(), zeros.size());  // Takes no more than is left.
    }
    return *this;
  }

  /// Once, at the end.
  std::string Finish() {
    Check(archive_write_close(archive_));
    return bytes_;
  }

 private:
  static constexpr std::size_t kEndBytes = 1024;

  // As it stands in the archive, up to the next one.
  static std::string RawMember(char type, const std::string& name, const std::string& target,
                               const std::string& body) {
    std::string header(512, '\0');
    char size[12];
    std::snprintf(size, sizeof size, "%011o", static_cast<unsigned>(body.size()));
    header.replace(0, name.size(), name);
    header.replace(100, 7, "0000644");
    header.replace(108, 7, "0000000");
    header.replace(116, 7, "0000000");
    header.replace(124, 11, size);
    header.replace(136, 11, "00000000000");
    header.replace(148, 8, "        ");
    header[156] = type;
    header.replace(157, target.size(), target);
    header.replace(257, 8, std::string("ustar\00000", 8));
    unsigned sum = 0;
    for (const char c : header) {
      sum += static_cast<unsigned char>(c);
    }
    char checksum[8];
    std::snprintf(checksum, sizeof checksum, "%06o", sum);
    header.replace(148, 7, std::string(checksum, 7));
    std::string block = body;
    block.resize((body.size() + 511) / 512 * 512, '\0');
    return header + block;
  }

  // It begins with its own length, that of this number included.
  static std::string ExtendedRecord(const std::string& key, const std::string& value) {
    const std::string rest = ' ' + key + '=' + value + '\n';
    std::size_t length = rest.size() + 1;
    while (std::to_string(length).size() + rest.size() != length) {
      ++length;
    }
    return std::to_string(length) + rest;
  }

  static la_ssize_t Write(archive*, void* context, const void* data, std::size_t size) {
    static_cast<PayloadBuilder*>(context)->bytes_.append(static_cast<const char*>(data), size);
    return static_cast<la_ssize_t>(size);
  }

  void AddFilter(Filter filter) {
    switch (filter) {
      case Filter::kNone:
        return;
      case Filter::kGzip:
        return Check(archive_write_add_filter_gzip(archive_));
      case Filter::kXz:
        return Check(archive_write_add_filter_xz(archive_));
      case Filter::kZstd:
        return Check(archive_write_add_filter_zstd(archive_));
      case Filter::kBzip2:
        return Check(archive_write_add_filter_bzip2(archive_));
    }
  }

  void Check(int result) const {
    if (result != ARCHIVE_OK) {
      const char* reason = archive_error_string(archive_);
      throw std::runtime_error(reason != nullptr ? reason : "archive");
    }
  }

  static archive_entry* NewEntry(const std::string& name, unsigned type, unsigned mode) {
    archive_entry* entry = archive_entry_new();
    archive_entry_set_pathname(entry, name.c_str());
    archive_entry_set_filetype(entry, type);
    archive_entry_set_perm(entry, static_cast<mode_t>(mode));
    archive_entry_set_uid(entry, 12345);
    archive_entry_set_gid(entry, 12345);
    archive_entry_set_mtime(entry, 1000, 0);
    archive_entry_set_size(entry, 0);
    return entry;
  }

  PayloadBuilder& Add(archive_entry* entry, const std::string& content) {
    Check(archive_write_header(archive_, entry));
    archive_entry_free(entry);
    if (!content.empty()) {
      archive_write_data(archive_, content.data(), content.size());
    }
    return *this;
  }

  archive* archive_;
  std::string bytes_;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_PACKAGE_PAYLOAD_BUILDER_H_
