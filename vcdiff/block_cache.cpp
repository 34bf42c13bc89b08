#include "vcdiff/block_cache.h"

#include <algorithm>

namespace tolm::vcdiff {

BlockCache::BlockCache() : numbers_(kBlocks, kNone) {}

void BlockCache::Attach(Input& input) {
  input_ = &input;
  std::fill(numbers_.begin(), numbers_.end(), kNone);
}

void BlockCache::Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) {
  if (size >= kBlockBytes) {
    input_->Read(offset, to, size);
    return;
  }
  while (size > 0) {
    const auto within = static_cast<std::size_t>(offset % kBlockBytes);
    const std::size_t piece = std::min(size, kBlockBytes - within);
    std::copy_n(Block(offset / kBlockBytes) + within, piece, to);
    offset += piece;
    to += piece;
    size -= piece;
  }
}

const std::uint8_t* BlockCache::Block(std::uint64_t number) {
  if (bytes_ == nullptr) {
    bytes_.reset(new std::uint8_t[kBlocks * kBlockBytes]);
  }
  const auto place = static_cast<std::size_t>(number % kBlocks);
  std::uint8_t* block = bytes_.get() + place * kBlockBytes;
  if (numbers_[place] != number) {
    numbers_[place] = kNone;  // Until the block is whole: reading may throw.
    const std::uint64_t start = number * kBlockBytes;
    const std::uint64_t size = std::min<std::uint64_t>(kBlockBytes, input_->Size() - start);
    input_->Read(start, block, static_cast<std::size_t>(size));
    numbers_[place] = number;
  }
  return block;
}

}  // namespace tolm::vcdiff
