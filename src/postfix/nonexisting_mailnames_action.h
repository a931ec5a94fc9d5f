// What happens to mail for names that do not exist in a domain or domain alias.
#pragma once

#include <string>

struct NonexistingMailnamesAction {
    enum Kind : int { Bounce = 0, CatchAll = 1, Reject = 2 };

    int kind = Reject;
    std::string bounceText;       ///< for Bounce
    std::string catchAllAddress;  ///< for CatchAll, in ASCII form
};
