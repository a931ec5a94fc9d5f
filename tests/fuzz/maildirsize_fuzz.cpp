// Any bytes as maildirsize: usage that is reported is never negative and is told alike by every reader; a message that
// fits no more is over quota.
#include <sys/stat.h>

#include "fuzz.h"
#include "storage/mailbox_quota.h"
#include "storage/maildirsize.h"

void check(std::string& input) {
    static const char* const maildir = "/tmp/Maildir";
    ::mkdir(maildir, 0700);
    write_file("/tmp/Maildir/maildirsize", input);
    std::uint64_t bytes = 0, messages = 0, again = 0, again_messages = 0;
    long bytes_limit = 0, messages_limit = 0;
    const int usable = get_maildirpp_usage_and_limits(maildir, 1, &bytes, &messages, &bytes_limit, &messages_limit);
    require(get_maildirpp_usage(maildir, &again, &again_messages) == 1);
    require(usable == 0 || (bytes == again && messages == again_messages && static_cast<std::int64_t>(bytes) >= 0));
    const bool over = usable != 0 && ((bytes_limit != 0 && bytes + 1 > static_cast<std::uint64_t>(bytes_limit)) ||
                                      (messages_limit != 0 && static_cast<std::int64_t>(messages) >= messages_limit));
    require((check_maildirpp_overquota(maildir, 1, 1) != 0) == over);
}
