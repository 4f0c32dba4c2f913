// near_word.h - what a mistyped word was probably meant to be.

#ifndef NEAR_WORD_H
#define NEAR_WORD_H

#include <string>
#include <vector>

namespace tavmail {

// "; did you mean \"--server\"?" for the most similar of `words`, "" when none is similar.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& words);

}  // namespace tavmail

#endif
