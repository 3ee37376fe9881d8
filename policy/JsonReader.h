// Reading values out of a JSON tree, with an error for everything that is not as expected.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "policy/JsonTree.h"
#include "policy/RuleFields.h"
#include "policy/RuleJson.h"
#include "policy/Words.h"

namespace KxPolicy
{

/// Where in the tree a value stands, as a chain towards the root.
struct Path
{
    const Path* Outer = nullptr;
    std::string_view Name; // of a member; empty: an element
    size_t Index = 0;

    [[nodiscard]] Path Member(std::string_view name) const noexcept { return {this, name, 0}; }
    [[nodiscard]] Path Item(size_t index) const noexcept { return {this, {}, index}; }
    [[nodiscard]] std::string Text() const
    {
        if (Outer == nullptr)
            return {};
        std::string text = Outer->Text();
        if (Name.empty())
            return text + "[" + std::to_string(Index) + "]";
        return text + (text.empty() ? "" : ".") + std::string(Name);
    }
};

/// Reads on after an error; what could not be read keeps its former value.
class JsonReader
{
public:
    explicit JsonReader(std::string_view json);

    [[nodiscard]] JsonValue Root() const noexcept { return m_Tree.Root(); }
    /// All that was found, in the file's order, the last one telling how many more there are when they are too many to
    /// read; true when there is nothing.
    [[nodiscard]] bool Finish(std::vector<JsonError>& errors);

protected:
    using Kind = JsonTree::Kind;
    using Members = std::vector<std::optional<JsonValue>>;

    void Report(size_t offset, const Path& path, std::string text);
    /// How much could not be read so far, broken values included.
    [[nodiscard]] size_t Failures() const noexcept { return m_Failures; }
    /// "expected ..., found ...". Broken values have been complained about already, and get their path here.
    void Expected(JsonValue value, const Path& path, const std::string& what);

    /// The members of an object in the order of names. Unknown and repeated ones are reported.
    Members ReadMembers(JsonValue value, const Path& path, const std::vector<std::string_view>& names,
                        const std::string& what);
    /// take(item, path) for each.
    template <class Take>
    void ReadArray(JsonValue value, const Path& path, const char* what, Take take)
    {
        if (!value.Is(Kind::Array))
            return Expected(value, path, std::string("an array of ") + what);
        size_t index = 0;
        value.ForEachItem([&](JsonValue item) { take(item, path.Item(index++)); });
    }
    std::optional<uint32_t> ReadNumber(JsonValue value, const Path& path, uint32_t least, uint32_t most,
                                       const std::string& orElse = {});
    std::optional<uint32_t> ReadKeyword(JsonValue value, const Path& path, Keywords names);
    void ReadNarrow(JsonValue value, const Path& path, void* field, size_t room);
    void ReadWide(JsonValue value, const Path& path, void* field, size_t room);
    /// Lines "offset: bytes" over a record, which they may touch from begin to end.
    void ReadRaw(JsonValue value, const Path& path, void* record, size_t begin, size_t end);
    /// Any field of the tables, into its places.
    void ReadField(const RuleField& field, JsonValue value, const Path& path, uint8_t* record);

private:
    struct Finding
    {
        size_t Offset;
        std::string Path;
        std::string Text;
    };

    void NameBroken(JsonValue value, const Path& path);
    std::optional<std::string> ReadText(JsonValue value, const Path& path, const char* what);
    void ReadOne(const RuleField& field, JsonValue value, const Path& path, uint8_t* to);
    void ReadExtension(const RuleField& field, JsonValue value, const Path& path, uint8_t* record);
    void ReadHash(JsonValue value, const Path& path, uint8_t* to);

    JsonTree m_Tree;
    std::vector<Finding> m_Findings; // the tree's complaints come first
    size_t m_Failures = 0;
    size_t m_LeftOut = 0; // findings beyond the most that are kept
};

} // namespace KxPolicy
