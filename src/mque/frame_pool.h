// mque/frame_pool.h - reused blocks for the large buffers of the receiving
// road: the record a media frame is copied into, and the command queue's
// copy of it.
//
// Those two copies are the design's; what they cost beyond the memcpy is
// the allocation. A frame of tens of kilobytes from malloc is carved from
// the heap's top, and the allocator gives that memory back when the queue
// runs dry, so the next burst faults every page in again. Blocks taken from
// here are kept instead, up to kFramePoolKeep per size class; a host's own
// allocator settings stay untouched.
//
// Sizes up to kFrameSmallest go to malloc (small frames are cheap there, and
// a block each would waste memory in a long queue); sizes in a class take a
// block of the class's size; larger ones malloc again. Thread-safe: a short
// mutex per class, never held across anything else.
#ifndef ARBOR_SRC_MQUE_FRAME_POOL_H
#define ARBOR_SRC_MQUE_FRAME_POOL_H

#include <cstddef>

// Sizes up to this go to malloc.
inline constexpr size_t kFrameSmallest = 4096;
// Blocks kept per class when free: a burst of this many large frames
// queued at once is served again without the heap. At most
// 256 × (16 + 72) KiB = 22 MiB stays allocated once the traffic is gone,
// and only after a burst that held that much in the queue anyway.
inline constexpr size_t kFramePoolKeep = 256;

// A buffer of at least size bytes, or null when memory runs out. size 0
// gives null.
void* frame_alloc(size_t size);

// Gives back what frame_alloc(size) gave, with the same size. Null is
// ignored.
void frame_free(void* block, size_t size);

// A copy of size bytes at data in a frame_alloc block, or null.
void* frame_dup(const void* data, size_t size);

#endif  // ARBOR_SRC_MQUE_FRAME_POOL_H
