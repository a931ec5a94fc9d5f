// Records and lists of mail handlers. Texts come from malloc, as callers fill them with strdup. Global handlers carry
// one of two fixed words in place of a mail address.
#include "handlers/handler_record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "util/log.h"

using kavro::handlers::kAll;
using kavro::handlers::kAllRecipients;

namespace {

constexpr mh_data kDefaults{0, 5, 5, nullptr, nullptr, nullptr, nullptr, 0, 0};

/// The text fields of a record, for what is done to each of them.
constexpr char* mh_data::*kTexts[] = {&mh_data::name, &mh_data::address, &mh_data::executable, &mh_data::context};

struct RecordDeleter {
    void operator()(mh_data* record) const { mh_data_free(record); }
};

void log_no_memory() {
    kavro_log(KAVRO_LOG_ERROR, "System error: %s", std::strerror(ENOMEM));
}

}  // namespace

mh_data* mh_data_init() {
    auto* record = new (std::nothrow) mh_data(kDefaults);
    if (record == nullptr) {
        log_no_memory();
    }
    return record;
}

void mh_data_init_ex(mh_data* record) {
    *record = kDefaults;
}

mh_data* mh_data_clone(const mh_data* record) {
    // The copy owns none of the original's texts at any moment: leaving half-way frees only what it made itself.
    std::unique_ptr<mh_data, RecordDeleter> copy(mh_data_init());
    if (copy == nullptr) {
        return nullptr;
    }
    *copy = *record;
    for (auto text : kTexts) {
        (*copy).*text = nullptr;
    }
    for (auto text : kTexts) {
        if (record->*text == nullptr) {
            continue;
        }
        (*copy).*text = ::strdup(record->*text);
        if ((*copy).*text == nullptr) {
            log_no_memory();
            return nullptr;
        }
    }
    return copy.release();
}

void mh_data_free(mh_data* record) {
    if (record != nullptr) {
        mh_data_free_ex(record);
        delete record;
    }
}

void mh_data_free_ex(mh_data* record) {
    for (auto text : kTexts) {
        std::free(record->*text);
        record->*text = nullptr;
    }
}

mh_list* mh_list_init() {
    auto* list = new (std::nothrow) mh_list{nullptr};
    if (list == nullptr) {
        log_no_memory();
    }
    return list;
}

int mh_list_add(mh_list* list, const mh_data* record) {
    std::unique_ptr<mh_data, RecordDeleter> copy(mh_data_clone(record));
    auto* node = copy == nullptr ? nullptr : new (std::nothrow) mh_list_node{copy.get(), list->head, nullptr};
    if (node == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to clone handlers data record");
        return -1;
    }
    static_cast<void>(copy.release());  // the node has it now
    if (list->head != nullptr) {
        list->head->previous = node;
    }
    list->head = node;
    return 0;
}

void mh_list_free(mh_list* list) {
    if (list == nullptr) {
        return;
    }
    while (list->head != nullptr) {
        const std::unique_ptr<mh_list_node> node(list->head);
        list->head = node->next;
        mh_data_free(node->data);
    }
    delete list;
}

const char* kavro::handlers::global_recipient(const char* address) {
    if (address == nullptr || *address == '\0') {
        return kAll;
    }
    for (const char* known : {kAll, kAllRecipients}) {
        if (std::strcmp(address, known) == 0) {
            return known;
        }
    }
    return nullptr;
}

const char* validate_global_handler_recipient(const char* address) {
    const char* recipient = kavro::handlers::global_recipient(address);
    if (recipient == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Incorrect recipient address for global handler, expected [NULL|EMPTY_STRING|%s|%s]",
                  kAll, kAllRecipients);
    }
    return recipient;
}
