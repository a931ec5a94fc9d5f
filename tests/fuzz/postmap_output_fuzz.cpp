// Any bytes as postmap's diagnostics: what passes strictly passes, and a text passes when each of its lines does.
#include "fuzz.h"
#include "postfix/postmap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using kavro::mail::postfix::holdsNoError;
    const std::string text = as_text(data, size);
    std::string rest = text;
    for (const bool strict : {false, true}) {
        bool lines = true;
        for (rest = text; !rest.empty();) {
            lines = holdsNoError(take_line(rest), strict) && lines;
        }
        require(holdsNoError(text, strict) == lines);
    }
    require(!holdsNoError(text, true) || holdsNoError(text, false));
    require(!holdsNoError(text + "\npostmap: fatal: x", false));
    return 0;
}
