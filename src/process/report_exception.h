// Top-level reports of exceptions that nobody handled, on kavro::uerr.
#pragma once

#include <exception>

namespace kavro {

/// One line: "Fatal error: ", the demangled dynamic type, and what() in parentheses; then the call stack when the
/// exception carries a Traceback.
template <typename Exception>
void reportException(const Exception& error);

template <>
void reportException<std::exception>(const std::exception& error);

/// The line for an exception of unknown type.
void reportUntypedException();

}  // namespace kavro
