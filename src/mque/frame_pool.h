// mque/frame_pool.h - reused blocks for the buffers of the receiving road:
// the record a media frame is copied into, the command queue's copy of it
// (of every command's payload), and the fan-out records of the data path.
//
// Those copies are the design's; what they cost beyond the memcpy is the
// allocation. A frame of tens of kilobytes from malloc is carved from the
// heap's top, and the allocator gives that memory back when the queue runs
// dry, so the next burst faults every page in again. A small frame is cheap
// to allocate, but its queue copy is allocated on the transport's thread
// and freed on the queue's consumer, the one pattern that takes the heap's
// slow road on every frame. Blocks taken from here are kept instead, up to
// kFramePoolKeep per size class; a host's own allocator settings stay
// untouched.
//
// Sizes in a class take a block of the class's size (256 bytes, 2 KiB, 16
// KiB, and one whole frame of the wire with a record head); larger ones go
// to malloc. Thread-safe: a short mutex per class, never held across
// anything else.
#ifndef ARBOR_SRC_MQUE_FRAME_POOL_H
#define ARBOR_SRC_MQUE_FRAME_POOL_H

#include <cstddef>

// Blocks kept per class when free: a burst of this many frames queued at
// once is served again without the heap. At most 256 x (0.25 + 2 + 16 + 72)
// KiB = 23 MiB stays allocated once the traffic is gone, and only after a
// burst that held that much in the queue anyway.
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
