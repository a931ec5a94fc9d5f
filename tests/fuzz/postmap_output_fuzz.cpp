// Any bytes as postmap's diagnostics: what passes strictly passes, and a text passes when each of its lines does.
#include "fuzz.h"
#include "postfix/postmap.h"

void check(std::string& text) {
    using kavro::mail::postfix::holdsNoError;
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
}
