// Null-terminated arrays of allocated strings.
#include "util/string_array.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/c_memory.h"
#include "util/log.h"

namespace {

std::size_t countStrings(char** array) {
    std::size_t count = 0;
    while (array != nullptr && array[count] != nullptr) {
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
    return grown;
}

void free_array(char** array) {
    if (array == nullptr) {
        return;
    }
    for (char** s = array; *s != nullptr; ++s) {
        std::free(*s);
    }
    std::free(array);
}
