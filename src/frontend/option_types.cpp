// Reading of names and name lists from option values.
#include "frontend/option_types.h"

#include <algorithm>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/program_options/errors.hpp>
#include <boost/program_options/value_semantic.hpp>
#include <istream>
#include <stdexcept>
#include <string_view>

#include "util/idn.h"
#include "util/names.h"

namespace {

using Words = std::vector<std::string>;

/// The first word of an option's value; empty for an empty value.
std::string readWord(std::istream& stream) {
    std::string word;
    stream >> word;
    return word;
}

Words split(const std::string& text, std::string_view separators) {
    Words pieces;
    boost::algorithm::split(pieces, text,
                            [separators](char character) { return separators.find(character) != separators.npos; });
    return pieces;
}

/// The names of one list; none at all for an empty text.
Words splitNames(const std::string& text) {
    Words names = split(text, " \t,");
    if (names.size() == 1 && names.front().empty()) {
        names.clear();
    }
    return names;
}

void appendOnce(Words& words, const std::string& word) {
    if (std::find(words.begin(), words.end(), word) == words.end()) {
        words.push_back(word);
    }
}

/// The text of an option that may occur once.
const std::string& onlyText(const boost::any& value, const Words& texts) {
    boost::program_options::validators::check_first_occurrence(value);
    return boost::program_options::validators::get_single_string(texts);
}

}  // namespace

std::istream& operator>>(std::istream& stream, DomainNameTOpt& domain) {
    const std::string name = boost::algorithm::to_lower_copy(kavro::idn::toAscii(readWord(stream)));
    if (is_domain_name_valid(name.c_str()) == 0) {
        throw std::runtime_error(name + " - domain has incorrect format.");
    }
    domain.name_ = name;
    return stream;
}

std::istream& operator>>(std::istream& stream, MailNameTOpt& mailname) {
    const std::string name = boost::algorithm::to_lower_copy(readWord(stream));
    if (is_mailname_valid(name.c_str()) == 0) {
        throw std::runtime_error(name + " - local part of mailname has incorrect format.");
    }
    mailname.name_ = name;
    return stream;
}

void MailDbDomainAliasesList::add(const std::string& name) {
    appendOnce(names_, name);
}

void MailDbMailAddressesList::add(const std::string& mailname, const std::string& alias) {
    appendOnce(mails_[mailname], alias);
}

void MailDbMailAddressesList::set(const std::string& mailname, std::vector<std::string> aliases) {
    mails_[mailname] = std::move(aliases);
}

void validate(boost::any& value, const std::vector<std::string>& texts, MailDbDomainAliasesList* /*tag*/,
              int /*unused*/) {
    value = MailDbDomainAliasesList(splitNames(onlyText(value, texts)));
}

void validate(boost::any& value, const std::vector<std::string>& texts, MailDbMailAddressesList* /*tag*/,
              int /*unused*/) {
    MailDbMailAddressesList list;
    for (const std::string& group : split(onlyText(value, texts), ";")) {
        Words names = splitNames(group);
        if (names.empty()) {
            continue;
        }
        const std::string mailname = names.front();
        names.erase(names.begin());
        list.set(mailname, std::move(names));
    }
    value = list;
}
