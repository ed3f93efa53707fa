// The instance allocator of a handle: every block it hands out, live or kept for reuse, with exact
// accounting of what is live. Nothing here is visible to bundles.
#ifndef MGX_RUNTIME_BLOCKS_H
#define MGX_RUNTIME_BLOCKS_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace mgx {

#if defined(__SANITIZE_ADDRESS__)
#define MGX_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MGX_ADDRESS_SANITIZER 1
#endif
#endif

// A set of block addresses: an open-addressing table (linear probing, tombstones, grown at half
// load) that allocates nothing per block.
class BlockTable {
public:
    static constexpr size_t absent = ~size_t{0};

    void insert(void *p, size_t size) {
        if ((used_ + 1) * 2 > slots_.size()) rehash(slots_.empty() ? 64 : (count_ + 1) * 4);
        size_t i = home(p);
        while (slots_[i].key && slots_[i].key != tombstone()) i = (i + 1) & mask();
        if (!slots_[i].key) ++used_;
        slots_[i] = Slot{p, size};
        ++count_;
    }
    // The block's size, and the block forgotten; absent when the table does not hold it.
    size_t take(void *p) {
        if (slots_.empty() || !p) return absent;
        for (size_t i = home(p);; i = (i + 1) & mask()) {
            if (!slots_[i].key) return absent;
            if (slots_[i].key == p) {
                size_t size = slots_[i].size;
                slots_[i].key = tombstone();
                --count_;
                return size;
            }
        }
    }
    size_t size() const { return count_; }

private:
    struct Slot {
        void *key = nullptr;
        size_t size = 0;
    };
    static void *tombstone() { return reinterpret_cast<void *>(uintptr_t{1}); }
    size_t mask() const { return slots_.size() - 1; }
    size_t home(const void *p) const {
        auto v = reinterpret_cast<uintptr_t>(p) >> 4;
        return static_cast<size_t>(v * 0x9E3779B97F4A7C15ull >> 20) & mask();
    }
    void rehash(size_t at_least) {
        size_t n = 64;
        while (n < at_least) n *= 2;
        std::vector<Slot> old(n);
        old.swap(slots_);
        used_ = count_ = 0;
        for (const Slot &s : old)
            if (s.key && s.key != tombstone()) insert(s.key, s.size);
    }
    std::vector<Slot> slots_;
    size_t count_ = 0; // live blocks
    size_t used_ = 0;  // slots ever filled since the last rehash (live and tombstones)
};

// Every block starts with this header, right in front of the address handed out: the size asked
// for and the block's slot in the list of live blocks. A free reads the slot and finds the address
// there, or the address is not a live block of this allocator: ownership is exact, and neither a
// search nor a hash is needed. A block kept for reuse links to the next one of its size class.
struct BlockHeader {
    union {
        uint64_t size;
        BlockHeader *next;
    };
    uint32_t slot;
    uint32_t padding;
};
static_assert(sizeof(BlockHeader) == 16, "blocks stay 16-byte aligned behind the header");

// Live blocks in a dense list (each block's header holds its slot; a freed block's slot takes the
// last block), and freed blocks of up to 512 bytes kept per 16-byte size class for the next
// request of the class, at most 256 KiB of them: decoding a message into a new instance and
// destroying it again then reaches neither the C heap nor a hash table. Blocks of a class are
// taken from the heap at the class's full size so that any request of the class can take any of
// them; guard bytes, when the handle has them, follow the size asked for, inside the same block.
//
// A free reads the header in front of the address it is given, before it knows whether the block
// is one of ours: an address at the start of a page would have its header on the page before,
// which may not be mapped, so the blocks whose address starts a page (one in 256 from the heap,
// kept as long as they are live) are also listed in a table, and an address at a page's start
// that the table does not hold is refused without reading anything.
//
// Under AddressSanitizer nothing is kept: it has to see every free to report a use after it.
class BlockPool {
public:
#ifdef MGX_ADDRESS_SANITIZER
    static constexpr bool keeps = false;
#else
    static constexpr bool keeps = true;
#endif
    static constexpr size_t granule = 16, classes = 32; // classes up to 512 bytes
    static constexpr size_t max_kept = 256 * 1024;      // bytes kept at most (headers and guards included)
    static constexpr size_t page = 4096;
    static constexpr uint8_t guard_pattern = 0xD9;

    BlockPool() = default;
    BlockPool(const BlockPool &) = delete;
    BlockPool &operator=(const BlockPool &) = delete;
    // Blocks still live are the owner's to report and let go first (release_live).
    ~BlockPool() {
        drop_kept();
        std::free(live_);
    }

    uint64_t live_count() const { return count_; }
    uint64_t live_bytes() const { return live_bytes_; }
    uint64_t total() const { return total_; }
    size_t kept_bytes() const { return max_kept - room_; }
    uint32_t guard() const { return guard_; }

    // Only while nothing is live; the kept blocks, laid out for the old guard, go back to the heap.
    bool set_guard(uint32_t bytes) {
        if (count_) return false;
        drop_kept();
        guard_ = bytes;
        return true;
    }

    // The allocator's two halves: take_kept and release_plain serve the common case (a block of a
    // size class kept for reuse, no guard bytes) in a few instructions and without a call, and
    // decline anything else without changing anything; allocate, claim and recycle serve every
    // case, the common one included.

    // A kept block of size's class made live, or null when there is none or the case is not the
    // common one.
    void *take_kept(size_t size) {
        const size_t c = class_of(size);
        if (!keeps || c >= classes || guard_) return nullptr;
        BlockHeader *b = kept_[c];
        if (!b || count_ == capacity_) return nullptr;
        kept_[c] = b->next;
        room_ += block_bytes(c);
        list(b, size);
        return b + 1;
    }

    // True when p was a live block without guard bytes and is now kept for reuse; false, with
    // nothing changed, for anything else.
    bool release_plain(void *p) {
        if (!keeps || !plain_address(p)) return false;
        BlockHeader *b = header_of(p);
        const uint32_t i = read_slot(b);
        if (i >= count_ || live_[i] != p || guard_) return false;
        const size_t size = b->size, c = class_of(size);
        if (c >= classes || room_ < block_bytes(c)) return false;
        unlist(b, i);
        room_ -= block_bytes(c);
        b->next = kept_[c];
        kept_[c] = b;
        return true;
    }

    // A new live block of size bytes, or null when the heap or the bookkeeping cannot grow.
    void *allocate(size_t size) {
        const size_t c = class_of(size);
        BlockHeader *b;
        if (keeps && c < classes && (b = kept_[c])) {
            kept_[c] = b->next;
            room_ += block_bytes(c);
        } else if (!(b = from_heap(size))) {
            return nullptr;
        }
        void *p = b + 1;
        if (!make_room(p)) {
            recycle(b, size);
            return nullptr;
        }
        list(b, size);
        if (guard_) std::memset(static_cast<uint8_t *>(p) + size, guard_pattern, guard_);
        return p;
    }

    // The header of p, which is no longer live, or null when p is not a live block of this pool
    // (a null p included). The block itself is the caller's to recycle.
    BlockHeader *claim(void *p) {
        if (!plain_address(p)) {
            if (!aligned(p) || edges_.take(p) == BlockTable::absent) return nullptr;
        }
        BlockHeader *b = header_of(p);
        const uint32_t i = read_slot(b);
        if (i >= count_ || live_[i] != p) return nullptr;
        unlist(b, i);
        return b;
    }

    // A block no longer live, kept for its class while there is room, otherwise back to the heap.
    // A block whose address starts a page is not kept: the kept ones can be handed out again
    // without looking.
    void recycle(BlockHeader *b, size_t size) {
        const size_t c = class_of(size);
        if (keeps && c < classes && room_ >= block_bytes(c) && plain_address(b + 1)) {
            room_ -= block_bytes(c);
            b->next = kept_[c];
            kept_[c] = b;
        } else {
            std::free(b);
        }
    }

    // Calls fn(address, size) for every live block, then lets them all go.
    template <class Fn> void release_live(Fn fn) {
        for (uint32_t i = 0; i < count_; ++i) {
            BlockHeader *b = header_of(live_[i]);
            fn(live_[i], static_cast<size_t>(b->size));
            std::free(b);
        }
        count_ = 0;
        live_bytes_ = 0;
        edges_ = BlockTable{};
    }

    static BlockHeader *header_of(void *p) { return static_cast<BlockHeader *>(p) - 1; }

private:
    // A request of 0 bytes wraps past every class, and is taken from the heap as it stands.
    static size_t class_of(size_t size) { return (size - 1) / granule; }
    size_t block_bytes(size_t c) const { return sizeof(BlockHeader) + (c + 1) * granule + guard_; }
    static bool aligned(const void *p) { return (reinterpret_cast<uintptr_t>(p) & (granule - 1)) == 0; }
    static bool starts_page(const void *p) { return (reinterpret_cast<uintptr_t>(p) & (page - 1)) == 0; }
    // Aligned as every block is, and with its header on its own page.
    static bool plain_address(const void *p) {
        return (((reinterpret_cast<uintptr_t>(p) & (page - 1)) - granule) & ~(page - granule)) == 0;
    }

    void list(BlockHeader *b, size_t size) {
        b->size = size;
        b->slot = count_;
        live_[count_++] = b + 1;
        live_bytes_ += size;
        ++total_;
    }
    void unlist(BlockHeader *b, uint32_t i) {
        void *last = live_[--count_];
        live_[i] = last;
        header_of(last)->slot = i;
        live_bytes_ -= b->size;
    }

    // The header of an address that may not be ours: AddressSanitizer is not to report reading
    // the bytes in front of a foreign address (a freed block's, or a neighbour's redzone).
#ifdef MGX_ADDRESS_SANITIZER
    [[gnu::noinline, gnu::no_sanitize_address]]
#endif
    static uint32_t
    read_slot(const BlockHeader *b) {
        return b->slot;
    }

    BlockHeader *from_heap(size_t size) {
        const size_t c = class_of(size);
        size_t bytes;
        if (keeps && c < classes) bytes = block_bytes(c);
        else if (size > SIZE_MAX - sizeof(BlockHeader) - guard_) return nullptr;
        else bytes = sizeof(BlockHeader) + size + guard_;
        return static_cast<BlockHeader *>(std::malloc(bytes));
    }

    // Room in the live list for one more block, and p listed among the blocks that start a page
    // when it is one; false when either cannot grow.
    bool make_room(void *p) {
        if (count_ == capacity_) {
            if (capacity_ == UINT32_MAX) return false;
            size_t n = capacity_ ? static_cast<size_t>(capacity_) * 2 : 64;
            if (n > UINT32_MAX) n = UINT32_MAX;
            void *grown = std::realloc(live_, n * sizeof(void *));
            if (!grown) return false;
            live_ = static_cast<void **>(grown);
            capacity_ = static_cast<uint32_t>(n);
        }
        if (starts_page(p)) {
            try {
                edges_.insert(p, 0);
            } catch (...) {
                return false;
            }
        }
        return true;
    }

    void drop_kept() {
        for (BlockHeader *&head : kept_)
            while (BlockHeader *b = head) {
                head = b->next;
                std::free(b);
            }
        room_ = max_kept;
    }

    void **live_ = nullptr;
    uint32_t count_ = 0, capacity_ = 0;
    uint64_t live_bytes_ = 0;
    uint32_t guard_ = 0;
    size_t room_ = max_kept; // bytes that may still be kept
    uint64_t total_ = 0;
    BlockHeader *kept_[classes] = {};
    BlockTable edges_; // live blocks whose address starts a page
};

} // namespace mgx

#endif
