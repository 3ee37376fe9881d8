// Differences carried out through the library.
#pragma once

#include "tools/kxrule/PolicyDiff.h"
#include "tools/kxrule/Session.h"

namespace Tool
{

/// Makes the changes and writes them. The files change only at the end, each whole; a rule set that goes, or gets
/// another name, first has a copy of the store put into a dated directory below RuleBackup.
void Apply(Session& session, const Policy& store, const PolicyDiff& diff);

} // namespace Tool
