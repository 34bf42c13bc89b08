#include "vcdiff/decoder.h"

#include "vcdiff/address_cache.h"
#include "vcdiff/instructions.h"
#include "vcdiff/target_window.h"
#include "vcdiff/window.h"

namespace tolm::vcdiff {

namespace {

class Decoder {
 public:
  Decoder(Input& delta, Input& source, Sink& target, const Limits& limits, Nesting nesting)
      : source_(source),
        target_(target),
        windows_(delta, limits, nesting),
        table_(windows_.Header().Table()),
        cache_(table_.Near(), table_.Same()),
        built_(target) {}

  DecodeResult Run() {
    Window window;
    while (windows_.Next(window)) {
      CheckSource(window);
      windows_.Load(window);
      // The variant starts at 0 where Adler-32 is defined to start at 1.
      const bool is_variant = windows_.Header().version == Version::kInterleaving;
      built_.Begin(window, SegmentOf(window), is_variant ? 0 : 1);
      ReadInstructions(window, table_, cache_, built_);
      Finish(window);
    }
    return result_;
  }

 private:
  void CheckSource(const Window& window) const {
    if (window.segment != Segment::kSource) {
      return;
    }
    const std::uint64_t end = window.segment_position + window.segment_size;
    if (end > source_.Size()) {
      ThrowAbove({window.origin, window.segment_offset, "End of the source segment"}, end,
                 source_.Size());
    }
  }

  Input* SegmentOf(const Window& window) const {
    switch (window.segment) {
      case Segment::kSource:
        return &source_;
      case Segment::kTarget:
        return &target_.Written();
      case Segment::kNone:
        break;
    }
    return nullptr;
  }

  void Finish(const Window& window) {
    const std::uint32_t sum = built_.Finish();
    if (window.checksum && sum != *window.checksum) {
      ThrowUnequal({window.origin, window.checksum_offset - window.offset, "Adler-32 checksum"},
                   *window.checksum, sum);
    }
    ++result_.windows;
    result_.windows_with_checksum += window.checksum ? 1 : 0;
    result_.target_bytes += window.target_size;
  }

  Input& source_;
  Sink& target_;
  WindowReader windows_;
  const CodeTable& table_;
  AddressCache cache_;
  TargetWindow built_;
  DecodeResult result_;
};

bool CopiesFromTarget(Input& delta, const Limits& limits) {
  WindowReader windows(delta, limits, Nesting::kOutermost);
  Window window;
  while (windows.Next(window)) {
    if (window.segment == Segment::kTarget) {
      return true;
    }
  }
  return false;
}

}  // namespace

DecodeResult Decode(Input& delta, Input& source, Sink& target, const Limits& limits,
                    Nesting nesting) {
  return Decoder(delta, source, target, limits, nesting).Run();
}

DecodeResult Verify(Input& delta, Input& source, const Limits& limits, FileAccess access) {
  if (CopiesFromTarget(delta, limits)) {
    UnnamedFile target(access);
    return Decode(delta, source, target, limits);
  }
  NullSink target;
  return Decode(delta, source, target, limits);
}

}  // namespace tolm::vcdiff
