// Policies in a few words.
#pragma once

#include <sstream>
#include <string>

/// The text of a policy of these words: "1a:" is the rule set 1, called a; "5s" and "5d" are its rule 5, of type SNAT
/// and DNAT; "2+" is an active rule set; "m*" is a macro.
inline std::string PolicyText(const std::string& outline)
{
    std::string text = "rules 1\nsets\n";
    std::istringstream words(outline);
    for (std::string word; words >> word;)
    {
        const char kind = word.back();
        word.pop_back();
        if (kind == ':')
            text += "set " + word.substr(0, word.size() - 1) + " " + word.back();
        else if (kind == '+')
            text += "active " + word;
        else if (kind == '*')
            text += "macro " + word + "\nport=80";
        else
            text += word + " NAT,ANY,,,,,,," + (kind == 's' ? "SNAT" : "DNAT");
        text += '\n';
    }
    return text;
}

/// The words with the numbers from first to last in front, such as "1a: 2a: 3a: ".
inline std::string Numbered(int first, int last, const std::string& word)
{
    std::string words;
    for (; first <= last; ++first)
        words += std::to_string(first) + word + " ";
    return words;
}

inline const std::string kPolicyBefore = PolicyText("2b: 1s 1a: 0s 5d 3c: 7s 4d: 1s 2s 1+ 3+ m* n*");
// A rule 0 that changes, a new name, a set that goes, one that comes, rules that change, go and come, macros, active
// list.
inline const std::string kPolicyAfter = PolicyText("1a: 0d 6d 2x: 1s 4d: 1d 3s 9e: 1s 9+ 1+ o*");
