// See text_verbs.cpp.
#ifndef STORE_TEXT_VERBS_HPP
#define STORE_TEXT_VERBS_HPP

#include <string>

/// What comes of a verb about text; "" where it is none.
std::string text_verb(const std::string &verb, const std::string &word);

#endif
