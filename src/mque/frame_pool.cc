// mque/frame_pool.cc - two size classes of reused blocks (rules in
// frame_pool.h). Each class is a free list behind its own mutex; a block's
// size class is found again from the size its user passes back.
#include "mque/frame_pool.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

struct FreeBlock {
  FreeBlock* next;
};

struct SizeClass {
  size_t block;  // bytes of every block of the class
  std::mutex mutex;
  FreeBlock* free = nullptr;  // guarded by mutex
  size_t kept = 0;            // guarded by mutex
};

// A small media frame (an RTP packet of a few hundred bytes) with its record
// head, one of an Ethernet-sized frame, 16 KiB, and one whole frame of the
// wire (65,535 bytes) with any record head in front of it.
SizeClass classes_[] = {
    {256, {}}, {2u << 10, {}}, {16u << 10, {}}, {72u << 10, {}}};

SizeClass* class_of(size_t size) {
  for (SizeClass& c : classes_)
    if (size <= c.block) return &c;
  return nullptr;
}

}  // namespace

void* frame_alloc(size_t size) {
  if (size == 0) return nullptr;
  SizeClass* c = class_of(size);
  if (c == nullptr) return std::malloc(size);
  {
    std::lock_guard hold(c->mutex);
    if (FreeBlock* block = c->free) {
      c->free = block->next;
      --c->kept;
      return block;
    }
  }
  return std::malloc(c->block);
}

void frame_free(void* block, size_t size) {
  if (block == nullptr) return;
  SizeClass* c = class_of(size);
  if (c != nullptr) {
    std::lock_guard hold(c->mutex);
    if (c->kept < kFramePoolKeep) {
      auto* node = static_cast<FreeBlock*>(block);
      node->next = c->free;
      c->free = node;
      ++c->kept;
      return;
    }
  }
  std::free(block);
}

void* frame_dup(const void* data, size_t size) {
  void* copy = frame_alloc(size);
  if (copy != nullptr) std::memcpy(copy, data, size);
  return copy;
}
