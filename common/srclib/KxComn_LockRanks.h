// The product's locks in the order in which they are taken; docs/threads.md has the table and the reasons.
#pragma once

#include "common/srclib/KxComn_LockOrder.h"

enum class KxCommon::Synchronize::LockRank : int
{
    Lifecycle,
    Global,
    TimerTable,
    Master,
    Record,
    Trace,
};
