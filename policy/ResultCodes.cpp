// The library's result codes in words.
#include "policy/ResultCodes.h"

#include "api/include/KxPfwRule.h"

namespace KxPolicy
{
namespace
{

struct ResultCode
{
    int32_t Code;
    const char* Text;
};

#define KX_CODE(name, meaning)                                                                                         \
    {                                                                                                                  \
        name, #name ": " meaning                                                                                       \
    }
constexpr ResultCode kCodes[] = {
    KX_CODE(KXRULE_OK, "success"),
    KX_CODE(KXRULE_E_NULL_POINTER, "a required pointer is null, or memory ran out"),
    KX_CODE(KXRULE_E_NO_RULESET, "no rule set has that index, or the index is in use"),
    KX_CODE(KXRULE_E_NO_RULE, "no rule has that index in the rule set"),
    KX_CODE(KXRULE_E_TOO_MANY_RULESETS, "the store already holds 64 rule sets"),
    KX_CODE(KXRULE_E_TOO_MANY_RULES, "the rule set would hold more than 1024 rules"),
    KX_CODE(KXRULE_E_RULE_EXISTS, "the rule index is in use in the rule set"),
    KX_CODE(KXRULE_E_MACRO_TEXT, "a macro without items has no text"),
    KX_CODE(KXRULE_E_RULE_TEXT, "a rule of this kind has no text"),
    KX_CODE(KXRULE_E_FILE_OPEN, "a file could not be opened"),
    KX_CODE(KXRULE_E_FILE_READ, "a file could not be read"),
    KX_CODE(KXRULE_E_FILE_WRITE, "a file could not be written"),
    KX_CODE(KXRULE_E_RULESET_FORMAT, "a rule set file has another magic or version"),
    KX_CODE(KXRULE_E_MACRO_FORMAT, "the macro file has another magic or version"),
    KX_CODE(KXRULE_E_ALREADY_INITIALIZED, "the library is initialised already"),
    KX_CODE(KXRULE_E_MUTEX, "the library's named mutex could not be created"),
    KX_CODE(KXRULE_E_PORT_LIST, "a port list of an access rule is empty or blank"),
    KX_CODE(KXRULE_E_HASH_LIBRARY, "KxHash.dll or its function could not be loaded"),
};
#undef KX_CODE

} // namespace

std::string ResultText(int32_t code)
{
    for (const ResultCode& known : kCodes)
    {
        if (known.Code == code)
            return std::to_string(code) + " " + known.Text;
    }
    return std::to_string(code) + ": the status of the hash library";
}

std::string_view ResultName(int32_t code) noexcept
{
    for (const ResultCode& known : kCodes)
    {
        if (known.Code == code)
            return std::string_view(known.Text).substr(0, std::string_view(known.Text).find(':'));
    }
    return {};
}

} // namespace KxPolicy
