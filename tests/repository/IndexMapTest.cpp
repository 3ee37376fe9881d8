// The ordered map, against its counterpart in the standard library.
#include "repository/IndexMap.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <stdexcept>

#include <gtest/gtest.h>

namespace
{

// A value that tracks which values exist, and whose construction fails on demand.
struct Value
{
    explicit Value(int64_t number) : Number(number)
    {
        if (FailIn >= 0 && FailIn-- == 0)
            throw std::runtime_error("asked for");
        EXPECT_TRUE(Living.insert(this).second);
    }
    Value(const Value& other) : Value(other.Number) {}
    Value& operator=(const Value&) = default;
    ~Value() { EXPECT_EQ(Living.erase(this), 1u); }

    int64_t Number;
    inline static std::set<const Value*> Living;
    inline static int FailIn = -1; // constructions until one throws; negative: never
};

using Map = IndexMap<Value>;
using Model = std::map<uint16_t, int64_t>;

Model Contents(const Map& map)
{
    Model contents;
    EXPECT_TRUE(std::is_sorted(map.Keys().begin(), map.Keys().end()));
    for (size_t i = 0; i < map.Size(); ++i)
    {
        EXPECT_EQ(map.Find(map.KeyAt(i)), &map.ValueAt(i));
        contents.emplace(map.KeyAt(i), map.ValueAt(i).Number);
    }
    return contents;
}

TEST(IndexMap, BehavesLikeAnOrderedMap)
{
    std::mt19937 random(1);
    Map map;
    const Value* const place = &map.Emplace(65535, 0);
    Model model = {{65535, 0}};
    for (int step = 0; step < 8000; ++step)
    {
        const uint16_t key = static_cast<uint16_t>(random() % 300 * 218);  // 0 to 65182
        const uint32_t action = random() % (step / 1000 % 2 == 0 ? 4 : 8); // grows, then shrinks
        if (action > 2)
            EXPECT_EQ(map.Erase(key), model.erase(key) == 1);
        else
        {
            if (action == 0 && !map.Contains(key))
                EXPECT_EQ(map.Emplace(key, step).Number, step);
            else if (action == 1)
                EXPECT_EQ(map.ReplaceKeyed([key](const Value&) { return key; }, step).Number, step);
            else
                EXPECT_EQ(map.Replace(key, step).Number, step);
            model[key] = step;
        }
        EXPECT_EQ(map.Contains(key), model.contains(key));
        EXPECT_EQ(map.LowerBound(key), std::distance(model.begin(), model.lower_bound(key)));
        if (step % 100 != 0)
            continue;
        Map copy(map);
        EXPECT_EQ(Value::Living.size(), 2 * model.size());
        map = std::move(*&map); // onto itself
        Map moved(std::move(map));
        EXPECT_TRUE(map.IsEmpty());
        map.Emplace(1, 1);
        map = std::move(moved);
        ASSERT_EQ(Contents(map), model) << step;
        moved = copy;
        EXPECT_EQ(copy.Erase(key), model.contains(key));
        ASSERT_EQ(Contents(moved), model) << step;
    }
    EXPECT_EQ(map.Find(65535), place) << "values stay where they are";
    EXPECT_TRUE(map.Erase(65535) && !map.Contains(65535));
    EXPECT_EQ(&map.Emplace(65534, 0), place) << "and their places are used again";
    map.Clear();
    EXPECT_TRUE(Value::Living.empty() && !map.Contains(0) && !map.Contains(65534));
}

TEST(IndexMap, HoldsEveryKeyInAnyOrder)
{
    // Ascending, descending, scattered; odd: each key once. All of them only where none has to make room for another.
    for (const auto& [factor, step] : {std::pair(1u, 1u), {65535u, 8u}, {40503u, 8u}})
    {
        IndexMap<uint64_t> map;
        for (uint32_t i = 0; i < 65536; i += step)
            map.Emplace(static_cast<uint16_t>(i * factor), i);
        EXPECT_TRUE(std::is_sorted(map.Keys().begin(), map.Keys().end())) << factor;
        for (uint32_t i = 0; i < 65536; i += step)
            ASSERT_EQ(map.ValueAt(static_cast<size_t>(map.LowerBound(static_cast<uint16_t>(i * factor)))), i);
    }
}

TEST(IndexMap, StaysAsItWasWhenAValueFails)
{
    Map map;
    Model model;
    for (uint16_t key = 100; key > 60; --key) // over the edges of several slabs
    {
        Value::FailIn = 0;
        EXPECT_THROW(map.Emplace(key, 1), std::runtime_error);
        ASSERT_EQ(Contents(map), model) << key;
        map.Emplace(key, key);
        model[key] = key;
        Value::FailIn = 0;
        EXPECT_THROW(map.Replace(100, 1), std::runtime_error);
    }
    Map other;
    other.Emplace(1, 1);
    for (const int k : {0, 4, 39})
    {
        Value::FailIn = k;
        EXPECT_THROW(other = map, std::runtime_error);
        EXPECT_EQ(Contents(other), (Model{{1, 1}})) << k;
        EXPECT_EQ(Value::Living.size(), 41u) << "a copy that failed leaves nothing behind";
    }
    EXPECT_EQ(Contents(map), model);
}

} // namespace
