// The ordered map, against its counterpart in the standard library.
#include "common/srclib/KxComn_IndexMap.h"

#include <gtest/gtest.h>

TEST(IndexMap, StartsEmpty)
{
    const KxCommon::IndexMap<int> map;
    EXPECT_TRUE(map.IsEmpty());
    EXPECT_EQ(map.Find(0), nullptr);
}
