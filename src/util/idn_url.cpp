// Conversion of the host name inside a URL.
#include <regex.h>

#include <array>
#include <cstdio>
#include <memory>

#include "util/c_memory.h"
#include "util/idn.h"
#include "util/log.h"

namespace {

constexpr std::size_t kUrlBuffer = 4096;
constexpr const char* kUrlPattern = "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$";

/// Groups of the pattern; 0 is the whole match.
enum UrlGroup : std::size_t { kScheme = 1, kUser, kHost, kRest, kGroupCount };

struct RegexFreer {
    void operator()(regex_t* expression) const noexcept { ::regfree(expression); }
};

std::array<char, 256> regexError(int code, const regex_t* expression) {
    std::array<char, 256> text{};
    ::regerror(code, expression, text.data(), text.size());
    return text;
}

/// Length of a group; 0 for one that is not there.
int groupLength(const regmatch_t& group) {
    return group.rm_so == -1 ? 0 : static_cast<int>(group.rm_eo - group.rm_so);
}

const char* groupStart(const char* url, const regmatch_t& group) {
    return group.rm_so == -1 ? "" : url + group.rm_so;
}

}  // namespace

const char* idn_url_toascii(const char* url) {
    static std::array<char, kUrlBuffer> result;

    regex_t expression;
    int code = ::regcomp(&expression, kUrlPattern, REG_EXTENDED);
    if (code != 0) {
        messlog2(1, 0, "regcomp() failed: %s", regexError(code, &expression).data());
    }
    const std::unique_ptr<regex_t, RegexFreer> owner(&expression);

    std::array<regmatch_t, kGroupCount> groups{};
    code = ::regexec(&expression, url, groups.size(), groups.data(), 0);
    if (code != 0) {
        messlog2(0, 0, "regexec() failed: %s", regexError(code, &expression).data());
        return nullptr;
    }
    if (groupLength(groups[kHost]) == 0) {
        messlog2(0, 0, "no hostname found in URL");
        return nullptr;
    }
    const kavro::CString host(asprintf_safe("%.*s", groupLength(groups[kHost]), groupStart(url, groups[kHost])));
    const kavro::CString ascii(idn_toascii(host.get()));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
        return nullptr;
    }
    std::snprintf(result.data(), result.size(), "%.*s%.*s%s%.*s", groupLength(groups[kScheme]),
                  groupStart(url, groups[kScheme]), groupLength(groups[kUser]), groupStart(url, groups[kUser]),
                  ascii.get(), groupLength(groups[kRest]), groupStart(url, groups[kRest]));
    return result.data();
}
