// Typed text: what a text means as a number, or as a yes or no.
//
// Values are kept, cached and told as they were written. Where their meaning counts, in typed reads
// and wherever two values of an int or a bool are held against each other, it is this, in every program
// alike:
//
//   intOf    what strtol gives with base 0 where long has 32 bits: leading blanks, a sign, 0x and
//            hexadecimal digits, 0 and octal digits, decimal digits, up to what is none; past 32 bits
//            the nearest number that they hold, and 0 without digits
//   boolOf   "true" in any case is true, and nothing else
//
// Threads:  plain functions; any number of threads may call them.
//
//   intOf("030")    // 24
//   boolOf("True")  // true
#pragma once

#include <cstdint>
#include <string>

namespace AppConfig {

std::int32_t intOf(const std::string& text);
bool boolOf(const std::string& text);

}  // namespace AppConfig
