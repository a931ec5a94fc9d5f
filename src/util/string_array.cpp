// Null-terminated arrays of allocated strings.
#include "util/string_array.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/c_memory.h"
#include "util/log.h"

namespace {

/// The array appended to last and its number of strings: a long array that is built in one go is not counted anew for
/// each string. Forgotten when the array is freed.
struct {
    char** array = nullptr;
    std::size_t count = 0;
} lastAppended;

std::size_t countStrings(char** array) {
    if (array == nullptr) {
        return 0;
    }
    if (array == lastAppended.array) {
        return lastAppended.count;
    }
    std::size_t count = 0;
    while (array[count] != nullptr) {
        ++count;
    }
    return count;
}

}  // namespace

char** string_to_mas(char** array, const char* s) {
    const std::size_t count = countStrings(array);
    kavro::CString copy(::strdup(s));
    char** grown = copy == nullptr ? nullptr : static_cast<char**>(std::realloc(array, (count + 2) * sizeof(char*)));
    if (grown == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "System error: %s\n", std::strerror(errno));
        return nullptr;
    }
    grown[count] = copy.release();
    grown[count + 1] = nullptr;
    lastAppended = {grown, count + 1};
    return grown;
}

void free_array(char** array) {
    if (array == nullptr) {
        return;
    }
    if (array == lastAppended.array) {
        lastAppended = {};
    }
    for (char** s = array; *s != nullptr; ++s) {
        std::free(*s);
    }
    std::free(array);
}
