#ifndef TOLM_VCDIFF_INSTRUCTIONS_H_
#define TOLM_VCDIFF_INSTRUCTIONS_H_

#include <cstddef>
#include <cstdint>

#include "vcdiff/address_cache.h"
#include "vcdiff/code_table.h"
#include "vcdiff/cursor.h"
#include "vcdiff/window.h"

namespace tolm::vcdiff {

/// The three sections side by side.
class SeparateStreams {
 public:
  explicit SeparateStreams(const Window& window)
      : data_(window.sections[kData].Read()),
        instructions_(window.sections[kInstructions].Read()),
        addresses_(window.sections[kAddresses].Read()) {}
  Cursor& Data() { return data_; }
  Cursor& Instructions() { return instructions_; }
  Cursor& Addresses() { return addresses_; }

 private:
  Cursor data_;
  Cursor instructions_;
  Cursor addresses_;
};

/// Everything in the section of the instructions, in the order in which it is needed.
class InterleavedStreams {
 public:
  explicit InterleavedStreams(const Window& window) : all_(window.sections[kInstructions].Read()) {}
  Cursor& Data() { return all_; }
  Cursor& Instructions() { return all_; }
  Cursor& Addresses() { return all_; }

 private:
  Cursor all_;
};

/// Reads the instructions of one window and hands each, checked, to the sink:
///
///   void Add(const std::uint8_t* data, std::size_t size, std::size_t readable_bytes);
///   void Run(std::uint8_t byte, std::size_t size);
///   void Copy(std::uint64_t address, std::size_t size);
///   void Done();  // after each of these
///
/// Sizes never go beyond the target window, addresses are below that of the next byte. More bytes
/// than the size may be readable behind the data of an Add.
template <class Streams, class Sink>
class InstructionReader {
 public:
  InstructionReader(const Window& window, const CodeTable& table, AddressCache& cache, Sink& sink)
      : window_(window), table_(table), cache_(cache), sink_(sink) {}

  /// Throws Error(kBadInput), also when the window is not filled or a section is not used up.
  void ReadAll() {
    // Locals whose address goes nowhere: what is written to the window cannot change them.
    Streams streams(window_);
    State state{window_.segment_size, window_.segment_size + window_.target_size};
    while (streams.Instructions().Left() > 0) {
      const std::size_t code_position = streams.Instructions().Position();
      const InstructionPair pair = table_[streams.Instructions().Byte(kCodeField)];
      Do(pair.first, code_position, streams, state);
      if (pair.second.type != InstructionType::kNoop) {
        Do(pair.second, code_position, streams, state);
      }
    }
    ExpectAllUsed(streams, state);
  }

 private:
  static constexpr char kCodeField[] = "Instruction code";
  static constexpr char kSizeField[] = "Size of the instruction";
  static constexpr char kDataField[] = "Data section for ADDs and RUNs";

  struct State {
    std::uint64_t here;  // address of the next byte
    std::uint64_t end;   // of the window
  };

  [[gnu::always_inline]] void Do(const Instruction& instruction, std::size_t code_position,
                                 Streams& streams, State& state) {
    if (instruction.type == InstructionType::kNoop) {
      return;
    }
    std::uint64_t long_size = instruction.size;
    if (long_size == 0) {
      long_size = streams.Instructions().Integer(kSizeField);
    }
    if (long_size > state.end - state.here) {
      ThrowAbove(streams.Instructions().PlaceAt(code_position, kSizeField), long_size,
                 state.end - state.here);
    }
    const auto size = static_cast<std::size_t>(long_size);
    if (instruction.type == InstructionType::kCopy) {
      sink_.Copy(cache_.Decode(instruction.mode, state.here, streams.Addresses()), size);
    } else if (instruction.type == InstructionType::kAdd) {
      const std::size_t readable = streams.Data().Left();
      sink_.Add(streams.Data().Take(size, kDataField), size, readable);
    } else {
      sink_.Run(streams.Data().Byte(kDataField), size);
    }
    sink_.Done();
    state.here += size;
  }

  void ExpectAllUsed(Streams streams, State state) const {
    if (state.here != state.end) {
      ThrowUnequal({window_.origin, 0, "Target bytes made by the window"},
                   state.here - window_.segment_size, window_.target_size);
    }
    ExpectUsed(streams.Data(), kDataField);
    ExpectUsed(streams.Addresses(), "Addresses section for COPYs");
  }

  static void ExpectUsed(const Cursor& cursor, const char* field) {
    if (cursor.Left() > 0) {
      ThrowUnequal(cursor.PlaceOf(field), cursor.Position() + cursor.Left(), cursor.Position());
    }
  }

  const Window& window_;
  const CodeTable& table_;
  AddressCache& cache_;
  Sink& sink_;
};

/// Reads all instructions of a window that was loaded.
template <class Sink>
void ReadInstructions(const Window& window, const CodeTable& table, AddressCache& cache,
                      Sink& sink) {
  cache.Reset();
  if (window.is_interleaved) {
    InstructionReader<InterleavedStreams, Sink>(window, table, cache, sink).ReadAll();
  } else {
    InstructionReader<SeparateStreams, Sink>(window, table, cache, sink).ReadAll();
  }
}

}  // namespace tolm::vcdiff

#endif  // TOLM_VCDIFF_INSTRUCTIONS_H_
