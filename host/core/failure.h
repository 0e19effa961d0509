// What a user is told when something could not be done.
#pragma once

#include <stdexcept>
#include <string>

#include "plugin/aerror.h"

namespace host {

/// An operation that failed, in words for the user: one line that says what failed, on what, and
/// what to do about it. Thrown inside the host only; never across the plug-in's boundary.
class Failure : public std::runtime_error {
 public:
  /// `what`: "cannot list \"/Photos\": no such folder"; `advice`: "look at `vormlane ls /`".
  explicit Failure(const std::string& what, const std::string& advice = {},
                   AERROR reason = AERROR::FAILED);

  AERROR Code() const { return code; }

 private:
  AERROR code;
};

/// What a code means to the user ("the service did not answer in time"), without its name.
std::string Meaning(AERROR code);

/// What the user can do about a code; empty when there is nothing particular.
std::string Advice(AERROR code);

/// The same, given what the plug-in has logged last ("HTTP 404"; may be empty).
std::string Advice(const std::string& said, AERROR code);

/// The text as one line: control characters become blanks, so that a message stays one line and
/// a name sent by the service cannot drive the terminal.
std::string OneLine(const std::string& text);

}  // namespace host
