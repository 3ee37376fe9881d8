// Every line but the last is refused, for the reason after it.
#include <KxPfwRule.hpp>
const kxrule::Address g_Octal("010.0.0.1");                                    // leading_zero
const kxrule::Address g_Mixed("10.0.0.1-fe80::1");                             // after_the_hyphen
const kxrule::Address g_Prefix("!10.0.0.0/33");                                // after_the_slash
const kxrule::Address g_Long("@0123456789012345678901234567890123456789abcd"); // longer_than_its_field
const kxrule::Port g_List("!80,81");                                           // list_cannot_be_negated
const kxrule::Port g_Name("@");                                                // name_after_the_at_sign
const kxrule::Port g_Number("65536");                                          // number_up_to_65535
const kxrule::Macro g_Macro("a name that has thirty-two bytes");               // longer_than_its_field
const bool g_Inactive = kxrule::Store().isActive(1, 1) ? 1 : 0;                // Outcome<bool>
const kxrule::Macro g_Fine("a name that has thirty-one byte");
