// Who owns which file, and what may be overwritten.
#include "persistence/RuleSetFiles.h"

#include <gtest/gtest.h>

namespace
{

using FileNames = std::vector<std::string>;

/// Of each of three files: its owner, + if it holds more than memory does, and whether the set 1 may replace it: Y, N,
/// or L if the master file has to be written first.
std::string StateOf(const RuleSetFiles& files)
{
    std::string text;
    for (const char* const name : {"a", "b", "c"})
    {
        const std::optional<uint16_t> owner = files.OwnerOf(name);
        text += (owner ? std::to_string(*owner) : "-") + (files.HoldsMore(name) ? "+" : "") +
                "YLN"[static_cast<size_t>(files.MayReplace(name, 1))] + " ";
    }
    return text;
}

} // namespace

TEST(RuleSetFiles, FollowASetFromFileToFile)
{
    RuleSetFiles files;
    EXPECT_TRUE(files.List("a"));
    EXPECT_TRUE(files.List("b"));
    EXPECT_FALSE(files.List("A"));
    files.Prepare("a", 1).Take();
    files.Prepare("B", 2).Take(true); // not everything was read
    EXPECT_EQ(StateOf(files), "1Y 2+N -+Y ");
    for (const char* const target : {"a", "b", "c"}) // writes that fail: the set still has its file
        static_cast<void>(files.Prepare(target, 1, "a"));
    EXPECT_EQ(StateOf(files), "1Y 2+N -+Y ");
    files.Prepare("c", 1, "A").Take();
    EXPECT_EQ(StateOf(files), "-L 2+N 1Y ");
    EXPECT_EQ(files.Unlisted({"c"}), FileNames{"b"});
    EXPECT_EQ(files.Unlisted({"c", "B"}), FileNames());
    EXPECT_FALSE(files.Release("a"));
    files.ListOnly({"B", "", "c"});
    EXPECT_EQ(StateOf(files), "-Y 2+N 1Y ");
    EXPECT_FALSE(files.Release("b") || files.Release("c"));
    EXPECT_TRUE(files.Release("a"));
    EXPECT_FALSE(files.Release("a"));
    EXPECT_EQ(StateOf(files), "-+Y 2+N 1Y ");
    files.Prepare("b", 2, "c").Take(); // it leaves a file that is another set's by now
    EXPECT_EQ(StateOf(files), "-+Y 2N 1Y ");
    files.NoteNothingSafe();
    files.NoteSafe("b");
    EXPECT_EQ(StateOf(files), "-+Y 2N 1+Y ");
    EXPECT_EQ(files.Unlisted({}), FileNames{"c"});
    files.NoteUnread("b");
    files.Disown("c");
    EXPECT_EQ(StateOf(files), "-+Y -+L -+L ");
    files.Clear();
    EXPECT_EQ(StateOf(files), "-+Y -+Y -+Y ");
}
