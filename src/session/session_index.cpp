// Mailnames of the session data, found in constant time: open addressing over the positions of their records, built
// when the first name is asked for. Eight to sixteen bytes for each mailname.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include "session/session_queries.h"

namespace {

constexpr std::size_t WORTH_INDEXING = 16;  ///< fewer mailnames are found faster without

class MailIndex {
public:
    /// The record of the first mailname that equals `mailname`; null when there is none.
    const mail_db_mail_t* find(const mail_db_data_t& data, const char* mailname) {
        if (!describes(data) && !build(data)) {
            return findWithout(data, mailname);
        }
        const std::uint32_t position = slots_[slotOf(mailname)];
        return position == EMPTY ? nullptr : &mails_[position];
    }

    void reset() {
        slots_.reset();
        mails_ = nullptr;
        count_ = 0;
    }

private:
    static constexpr std::uint32_t EMPTY = std::numeric_limits<std::uint32_t>::max();

    static bool isNamed(const mail_db_mail_t& mail, const char* mailname) {
        return mail.name != nullptr && std::strcmp(mail.name, mailname) == 0;
    }

    static const mail_db_mail_t* findWithout(const mail_db_data_t& data, const char* mailname) {
        const mail_db_mail_t* const end = data.mails + data.mails_count;
        const mail_db_mail_t* found =
            std::find_if(static_cast<const mail_db_mail_t*>(data.mails), end,
                         [mailname](const mail_db_mail_t& mail) { return isNamed(mail, mailname); });
        return found != end ? found : nullptr;
    }

    bool describes(const mail_db_data_t& data) const {
        return slots_ != nullptr && mails_ == data.mails && count_ == data.mails_count;
    }

    /// False when an index is not worth its while or there is no memory for it.
    bool build(const mail_db_data_t& data) {
        reset();
        if (data.mails_count < WORTH_INDEXING || data.mails_count >= EMPTY / 2) {
            return false;
        }
        const std::size_t size = std::bit_ceil(data.mails_count * 2);
        slots_.reset(new (std::nothrow) std::uint32_t[size]);
        if (slots_ == nullptr) {
            return false;
        }
        std::fill_n(slots_.get(), size, EMPTY);
        mask_ = size - 1;
        mails_ = data.mails;
        count_ = data.mails_count;
        for (std::uint32_t position = 0; position != count_; ++position) {
            if (mails_[position].name != nullptr) {
                std::uint32_t& slot = slots_[slotOf(mails_[position].name)];
                slot = std::min(slot, position);
            }
        }
        return true;
    }

    /// The slot that holds the mailname's position, or the empty one where it would stand.
    std::size_t slotOf(const char* mailname) const {
        std::size_t slot = std::hash<std::string_view>{}(mailname)&mask_;
        while (slots_[slot] != EMPTY && !isNamed(mails_[slots_[slot]], mailname)) {
            slot = (slot + 1) & mask_;
        }
        return slot;
    }

    std::unique_ptr<std::uint32_t[]> slots_;
    std::size_t mask_ = 0;
    const mail_db_mail_t* mails_ = nullptr;  ///< what the index was built over
    std::size_t count_ = 0;
};

MailIndex index_of_mails;

}  // namespace

const mail_db_mail_t* find_session_mail(const char* mailname) {
    if (session_mail_db_info == nullptr || mailname == nullptr) {
        return nullptr;
    }
    return index_of_mails.find(*session_mail_db_info, mailname);
}

void reset_session_index() {
    index_of_mails.reset();
}
