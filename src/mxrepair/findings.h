// What --check finds, one line each, and what --fix does about it.
#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "mxrepair/json_writer.h"

namespace mxrepair {

/// One thing that is not as it should be.
struct Finding {
    std::string store;    ///< virtual, vmailbox, mail storage, ...
    std::string object;   ///< the key, address or path concerned
    std::string domain;   ///< whose it is; empty: the node's
    std::string problem;  ///< what is wrong
    std::string remedy;   ///< what --fix does; without `mend`: what the operator can do
    std::function<void()> mend = {};
};

/// Takes findings as they are made and writes each at once.
class Findings {
public:
    /// `fixing`: what can be mended is mended.
    Findings(std::ostream& out, bool json, bool fixing) : out_(out), writer_(out), json_(json), fixing_(fixing) {}
    /// From now on findings of domains that do not belong are dropped; the node's have the empty name.
    void restrictTo(std::function<bool(const std::string& domain)> belongs) { belongs_ = std::move(belongs); }

    /// Writes the line; with `fixing`, mends first. A mending that fails is written as such.
    void add(const Finding& finding);
    /// To be called before the first finding and after the last one.
    void begin();
    void end();

    bool fixing() const noexcept { return fixing_; }
    bool any() const noexcept { return any_; }
    /// A finding is left that --fix did not mend.
    bool anyLeft() const noexcept { return anyLeft_; }

private:
    std::ostream& out_;
    JsonWriter writer_;
    bool json_;
    bool fixing_;
    bool any_ = false;
    bool anyLeft_ = false;
    std::function<bool(const std::string& domain)> belongs_;
};

/// On a terminal, one line on standard error that tells how far long work has come; elsewhere nothing.
class Progress {
public:
    explicit Progress(std::string what);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();
    /// One more is done.
    void step();
    /// Takes the line away, so that something else can be written.
    static void clear();

private:
    std::string what_;
    unsigned long done_ = 0;
};

}  // namespace mxrepair
