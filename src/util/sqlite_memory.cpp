// SQLite's memory, wiped as it is freed, over malloc(3).
#include "util/sqlite_memory.h"

#include <malloc.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kAlignment = 8;

void* allocate(int size) {
    return std::malloc(static_cast<std::size_t>(size));
}

void wipeAndFree(void* memory) {
    if (memory != nullptr) {
        ::explicit_bzero(memory, ::malloc_usable_size(memory));
        std::free(memory);
    }
}

int usableSize(void* memory) {
    return memory == nullptr ? 0 : static_cast<int>(::malloc_usable_size(memory));
}

/// By hand: realloc(3) would leave the old contents behind where it moves them.
void* reallocate(void* memory, int size) {
    if (size <= usableSize(memory)) {
        return memory;
    }
    void* moved = allocate(size);
    if (moved != nullptr) {
        std::memcpy(moved, memory, static_cast<std::size_t>(std::min(size, usableSize(memory))));
        wipeAndFree(memory);
    }
    return moved;
}

int roundUp(int size) {
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

int initialize(void* /*data*/) {
    return SQLITE_OK;
}

void shutDown(void* /*data*/) {
}

}  // namespace

namespace kavro {

void configureSqlite() {
    static bool configured = false;
    if (configured) {
        return;
    }
    configured = true;
    static const sqlite3_mem_methods wipingMemory = {allocate, wipeAndFree, reallocate, usableSize,
                                                     roundUp,  initialize,  shutDown,   nullptr};
    ::sqlite3_config(SQLITE_CONFIG_MALLOC, &wipingMemory);
    ::sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    ::sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // No page cache in advance: a few pages are used, and all of it would be wiped.
    ::sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
}

}  // namespace kavro
