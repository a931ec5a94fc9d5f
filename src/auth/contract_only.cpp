// The part of this floor's contract that no command of ours calls; other programs of the panel do: which mail server
// the panel says it runs, from its own list of features; the key's path beside a database; Base64 of texts.
#include <libgen.h>
#include <stdio.h>
#include <strings.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "auth/auth_paths.h"
#include "auth/base64.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/log.h"

namespace {

constexpr std::size_t kMaxCommandLength = 4095;
constexpr std::string_view kFeature = "$features['SMTP_Server']";
constexpr const char* kQuotes = "'\"";

struct PipeCloser {
    void operator()(std::FILE* stream) const noexcept { ::pclose(stream); }
};

/// Kept: the last character of the value is not compared, so that a value of one character is Postfix.
bool names(const std::string& value, const char* server) {
    return !value.empty() && ::strncasecmp(value.c_str(), server, value.size() - 1) == 0;
}

/// The style that a line of the feature list tells, or -1, logged when the line is about the mail server at all.
int style_of(std::string_view line) {
    if (!line.starts_with(kFeature)) {
        return -1;
    }
    const std::size_t open = line.find_first_of(kQuotes, kFeature.size());
    const std::size_t close = open == std::string_view::npos ? open : line.find_first_of(kQuotes, open + 1);
    if (close == std::string_view::npos) {
        kavro_log(KAVRO_LOG_INFO, "Unparseable line \"%s\", skipped", std::string(line).c_str());
        return -1;
    }
    const std::string value(line.substr(open + 1, close - open - 1));
    if (names(value, "postfix")) {
        return 1;
    }
    if (names(value, "qmail")) {
        return 0;
    }
    kavro_log(KAVRO_LOG_INFO, "Unknown server style \"%.*s\", skipped", static_cast<int>(value.size()), value.c_str());
    return -1;
}

}  // namespace

int mailAuthDBDetectStyle() {
    const std::string command = std::string(kProductRoot) + "/admin/sbin/mxadmin-server --features";
    if (command.size() >= kMaxCommandLength) {
        kavro_log(KAVRO_LOG_ERROR, "path to mxadmin is too long, check PRODUCT_ROOT_D (%s)", kProductRoot);
        return -1;
    }
    const std::unique_ptr<std::FILE, PipeCloser> output(::popen(command.c_str(), "re"));
    if (output == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "unable to execute %s: %s", command.c_str(), std::strerror(errno));
        return -1;
    }
    const kavro::CString features(read_stream_contents(output.get(), nullptr));
    std::string_view rest(features == nullptr ? "" : features.get());
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        if (const int style = style_of(rest.substr(0, end)); style != -1) {
            return style;
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    kavro_log(KAVRO_LOG_INFO, "Unable to determine mail server type from ``mxadmin-server --features''");
    return -1;
}

char* mailAuthDBToKeyPath(const char* db_path) {
    std::string copy(db_path);
    return asprintf_safe("%s/passwd_db_key", ::dirname(copy.data()));
}

std::size_t base64Decode(unsigned char* out, const char* text) {
    return base64ArrayDecode(out, text, std::strlen(text));
}

char* b64_encode_cstr(const char* text) {
    return b64_encode(text, text == nullptr ? 0 : std::strlen(text));
}

char* b64_decode_cstr(const char* text) {
    return reinterpret_cast<char*>(b64_decode(text, nullptr));
}
