#pragma once

// The regular expressions that the address classes share or that tests check.

#include <unicode/unistr.h>

#include "ip/Regex.h"

namespace morvane::ip::patterns {

/// A whole dotted IPv4 address, each group 0 to 255, leading zeros allowed.
const Regex& ipv4Address();

/// The shapes an IPv6 address may not have: a group of five or more digits, ":::", a
/// single ":" at either end, a "/" at the end.
const Regex& ipv6Malformed();

/// False only when `ipv6Malformed` cannot match `text`. ICU tries the five alternatives at
/// every position, which costs more than all the rest of a parse, while a well-formed
/// address (the usual case) has none of them; this test lets the matcher run only when the
/// text has one of the shapes at all.
bool mayBeMalformed(const icu::UnicodeString& text);

}  // namespace morvane::ip::patterns
