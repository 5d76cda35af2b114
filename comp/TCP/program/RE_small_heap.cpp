// The viewer's memory. A report takes a handful of small blocks, and the C library's allocator spends more on making
// itself ready for them (four system calls, three pages) than they are worth. Here small blocks come from memory that
// is part of the program and go back to a list of their size; each large one is a mapping of its own.
//
// For one thread, which is all that the viewer has.

#include <sys/mman.h>

#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// In front of every block, and as large as the strictest alignment.
struct alignas(16) block_header
{
    std::size_t room;        // bytes behind the header: a power of two below `large`, or those of a mapping
    block_header* next_free; // while the block is free
};

constexpr std::size_t smallest = 32;
constexpr std::size_t large = std::size_t{32} << 10;
constexpr std::size_t size_count = std::countr_zero(large / smallest);
constexpr std::size_t piece_size = std::size_t{256} << 10;

// Where small blocks are cut from; what has not been cut off yet takes up no memory.
alignas(4096) unsigned char first_piece[piece_size];
unsigned char* piece = first_piece;
std::size_t piece_left = piece_size;

block_header* free_blocks[size_count];

block_header*& free_blocks_of(std::size_t room)
{
    return free_blocks[std::countr_zero(room / smallest)];
}

block_header* header_of(void* memory)
{
    return static_cast<block_header*>(memory) - 1;
}

void* map_pages(std::size_t size)
{
    void* const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pages != MAP_FAILED ? pages : nullptr;
}

block_header* new_mapping(std::size_t size)
{
    if (size > PTRDIFF_MAX - sizeof(block_header)) {
        return nullptr;
    }
    auto* const block = static_cast<block_header*>(map_pages(size + sizeof(block_header)));
    if (block != nullptr) {
        block->room = size;
    }
    return block;
}

block_header* new_small_block(std::size_t room)
{
    const std::size_t size = sizeof(block_header) + room;
    if (piece_left < size) {
        void* const next_piece = map_pages(piece_size);
        if (next_piece == nullptr) {
            return nullptr;
        }
        piece = static_cast<unsigned char*>(next_piece);
        piece_left = piece_size;
    }
    auto* const block = reinterpret_cast<block_header*>(piece);
    piece += size;
    piece_left -= size;
    block->room = room;
    return block;
}

block_header* take_block(std::size_t size)
{
    if (size >= large) {
        return new_mapping(size);
    }
    const std::size_t room = std::bit_ceil(size < smallest ? smallest : size);
    if (room == large) {
        return new_mapping(room);
    }
    block_header*& blocks = free_blocks_of(room);
    block_header* const block = blocks;
    if (block == nullptr) {
        return new_small_block(room);
    }
    blocks = block->next_free;
    return block;
}

void give_back(block_header* block)
{
    if (block->room >= large) {
        munmap(block, sizeof(block_header) + block->room);
        return;
    }
    block->next_free = free_blocks_of(block->room);
    free_blocks_of(block->room) = block;
}

void* memory_of(block_header* block)
{
    if (block == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    return block + 1;
}

} // namespace

extern "C" {

void* malloc(std::size_t size)
{
    return memory_of(take_block(size));
}

void free(void* memory)
{
    if (memory != nullptr) {
        give_back(header_of(memory));
    }
}

void* calloc(std::size_t count, std::size_t size)
{
    std::size_t bytes = 0;
    block_header* const block = __builtin_mul_overflow(count, size, &bytes) ? nullptr : take_block(bytes);
    if (block != nullptr && block->room < large) {
        std::memset(block + 1, 0, bytes); // a mapping is zero already
    }
    return memory_of(block);
}

void* realloc(void* memory, std::size_t size)
{
    if (memory == nullptr) {
        return memory_of(take_block(size));
    }
    block_header* const old = header_of(memory);
    if (size <= old->room && old->room < large) {
        return memory;
    }
    block_header* const block = take_block(size);
    if (block != nullptr) {
        std::memcpy(block + 1, memory, size < old->room ? size : old->room);
        give_back(old);
    }
    return memory_of(block);
}

} // extern "C"
