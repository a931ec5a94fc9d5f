// Command lines for handlers and parsers under test.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

/// An argument vector of its own; argv[0] is a command word.
class Arguments {
public:
    Arguments(std::initializer_list<std::string> options) : texts_{"--command"} {
        texts_.insert(texts_.end(), options.begin(), options.end());
        for (std::string& text : texts_) {
            pointers_.push_back(text.data());
        }
        pointers_.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(texts_.size()); }
    char** argv() { return pointers_.data(); }

private:
    std::vector<std::string> texts_;
    std::vector<char*> pointers_;
};
