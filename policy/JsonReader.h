// Reads values out of a JSON tree, with a diagnostic for everything that is not as expected.
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

/// Where a value is in the tree, as a chain towards the root.
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

/// Continues after a value that is not as expected; the field it was for stays as it was.
class JsonReader
{
public:
    explicit JsonReader(std::string_view json);

    /// Calls read(root) unless the text is not JSON, which is then the only diagnostic. Returns all diagnostics in the
    /// order of the text; if there are too many, reading stops and the last one says so. True if there are none.
    template <class Read>
    [[nodiscard]] bool ReadAll(std::vector<Diagnostic>& diagnostics, Read read)
    {
        try
        {
            if (m_Tree.Error())
                Report(m_Tree.Error()->Offset, {}, m_Tree.Error()->Text);
            else
                read(m_Tree.Root());
        }
        catch (TooMany)
        {
        }
        return Finish(diagnostics);
    }

protected:
    using Kind = JsonTree::Kind;
    using Members = std::vector<std::optional<JsonValue>>;

    void Report(size_t offset, const Path& path, std::string text);
    /// The number of diagnostics so far.
    [[nodiscard]] size_t Reported() const noexcept { return m_Found.size(); }
    /// "expected ..., found ...".
    void Expected(JsonValue value, const Path& path, const std::string& what);

    /// The members of an object in the order of names. Unknown and repeated ones are reported.
    Members ReadMembers(JsonValue value, const Path& path, const std::vector<std::string_view>& names,
                        const std::string& what);
    /// Calls take(item, path) for each.
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
    /// Writes lines "offset: bytes" over a record; they may change it from begin to end.
    void ReadRaw(JsonValue value, const Path& path, void* record, size_t begin, size_t end);
    /// Reads any field of the tables into its places.
    void ReadField(const RuleField& field, JsonValue value, const Path& path, uint8_t* record);

    /// The same with a limit: reading stops after that many.
    template <class Take>
    void ReadArray(JsonValue value, const Path& path, const char* what, size_t most, const char* whoHolds, Take take)
    {
        size_t count = 0;
        ReadArray(value, path, what,
                  [&](JsonValue item, const Path& where)
                  {
                      if (++count <= most)
                          return take(item, where);
                      Report(item.Offset(), where,
                             std::string(whoHolds) + " at most " + std::to_string(most) + " " + what +
                                 "; what follows is not read");
                      throw TooMany();
                  });
    }

private:
    struct TooMany
    {
    };
    struct Found
    {
        size_t Offset;
        std::string Path;
        std::string Text;
    };

    bool Finish(std::vector<Diagnostic>& diagnostics);
    std::optional<std::string> ReadText(JsonValue value, const Path& path, const char* what);
    void ReadOne(const RuleField& field, JsonValue value, const Path& path, uint8_t* to);
    void ReadExtension(const RuleField& field, JsonValue value, const Path& path, uint8_t* record);
    void ReadHash(JsonValue value, const Path& path, uint8_t* to);

    JsonTree m_Tree;
    std::vector<Found> m_Found;
};

} // namespace KxPolicy
