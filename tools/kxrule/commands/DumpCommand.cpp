// One file of any of the three kinds, field by field, with the offsets of docs/format.md.
#include <nlohmann/json.hpp>

#include "persistence/Aes128.h"
#include "persistence/FileFormat.h"
#include "policy/Utf8.h"
#include "tools/kxrule/commands/Commands.h"
#include "tools/kxrule/commands/Session.h"
#include "tools/kxrule/commands/StoreFiles.h"
#include "tools/kxrule/console/Columns.h"

namespace Tool
{
namespace
{

std::string Hexadecimal(uint32_t value)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text = "0x";
    for (int shift = 28; shift >= 0; shift -= 4)
        text += kDigits[value >> shift & 15];
    return text;
}

/// Goes through a file in the order of its records and tracks where each begins.
class Dumper
{
public:
    explicit Dumper(const LookedAt& content) : m_Content(content) {}

    void Dump(Console& console)
    {
        Row("magic", FileFormat::kMagicBytes, MagicOf(m_Content.File.Head.Kind));
        Record("version", sizeof m_Content.File.Head.Version, Hexadecimal(m_Content.File.Head.Version));
        if (m_Content.File.Head.Kind == FileKind::Master)
            Master();
        else if (m_Content.File.Head.Kind == FileKind::Macros)
            Macros();
        else
            RuleSet();
        for (const std::string& line : Aligned(m_Rows, {0, 1}))
            console.Out(line + "\n");
        if (!m_Content.IsWhole())
            console.Out(console.Paint(Style::Bad, "reading stops here: " + ProblemText(m_Content)) + "\n");
        else if (m_Offset < m_Content.Bytes)
            console.Out(std::to_string(m_Content.Bytes - m_Offset) + " bytes after the last record are not read\n");
    }

private:
    void Row(const std::string& field, uint64_t bytes, const std::string& value)
    {
        m_Rows.push_back({std::to_string(m_Offset), std::to_string(bytes), field, Printable(value)});
        m_Offset += bytes;
    }
    /// One encrypted record: its length, and the ciphertext.
    void Record(const std::string& field, uint64_t plainBytes, const std::string& value)
    {
        Row(field, sizeof(uint32_t) + Aes128::CipherBytes(plainBytes), value);
    }
    void Text(const std::string& field, uint64_t plainBytes, const std::string& value)
    {
        Record(field + ", length", sizeof(uint32_t), std::to_string(plainBytes));
        Record(field, plainBytes, "\"" + value + "\"");
    }

    void Master()
    {
        const MasterFields& fields = m_Content.File.Master;
        Text("macro file", fields.MacroFileName.size(), NarrowToUtf8(fields.MacroFileName));
        Record("next index", sizeof fields.NextIndex, std::to_string(fields.NextIndex));
        std::string active;
        for (const uint16_t index : fields.ActiveRuleSets)
            active += (active.empty() ? "" : ", ") + std::to_string(index);
        Record("active, count", sizeof(uint32_t), std::to_string(fields.ActiveRuleSets.size()));
        Record("active", sizeof(uint16_t) * fields.ActiveRuleSets.size(), "[" + active + "]");
        Record("rule sets", sizeof(uint32_t), std::to_string(fields.RuleSetFileNames.size()));
        for (const std::string& name : fields.RuleSetFileNames)
            Text("rule set file", name.size(), NarrowToUtf8(name));
    }

    void Macros()
    {
        Record("macros", sizeof(uint32_t), std::to_string(m_Content.File.Macros.size()));
        for (const MacroRecord& macro : MacrosOf(m_Content.File))
        {
            Text("macro", macro.Name.size(), NarrowToUtf8(macro.Name));
            Record("items", sizeof(uint32_t), std::to_string(macro.Items.size()));
            const Json json = MacrosAsJson({macro});
            for (const Json& item : json[0]["items"])
                Record("item", sizeof(MACRO_ITEM), item.dump());
        }
    }

    void RuleSet()
    {
        const RuleSetRecord ruleSet = RuleSetOf(m_Content.File);
        const bool old = m_Content.File.Head.Version == FileFormat::kOldVersion;
        Record("index", sizeof ruleSet.Index, std::to_string(ruleSet.Index));
        Text("name", old ? KxCommon::String::ToNarrow(ruleSet.Name).size() : 2 * ruleSet.Name.size(),
             ToUtf8(ruleSet.Name));
        Record("rules", sizeof(uint32_t), std::to_string(m_Content.File.Set.RuleCount));
        for (const PFW_RULE& rule : ruleSet.Rules)
        {
            const std::string line = RuleLine(rule);
            Record("rule " + std::to_string(uint16_t{rule.wRuleIndex}), sizeof rule,
                   line.empty() ? "kind " + std::to_string(uint32_t{rule.dwKind}) : line);
            const Json json = RuleAsJson(rule);
            for (const auto& [name, value] : json.items())
            {
                if (name != "index" && name != "kind")
                    m_Rows.push_back({"", "", "  " + name, value.dump()});
            }
        }
    }

    const LookedAt& m_Content;
    uint64_t m_Offset = 0;
    std::vector<std::vector<std::string>> m_Rows = {{"offset", "bytes", "field", "value"}};
};

Json ContentAsJson(const LookedAt& content)
{
    Json json = {{"bytes", content.Bytes}, {"version", content.File.Head.Version}};
    if (content.File.Head.Kind == FileKind::Master)
    {
        json["macroFile"] = NarrowToUtf8(content.File.Master.MacroFileName);
        json["nextIndex"] = content.File.Master.NextIndex;
        json["active"] = content.File.Master.ActiveRuleSets;
        json["ruleSetFiles"] = Json::array();
        for (const std::string& name : content.File.Master.RuleSetFileNames)
            json["ruleSetFiles"].push_back(NarrowToUtf8(name));
    }
    else if (content.File.Head.Kind == FileKind::Macros)
    {
        json["macros"] = MacrosAsJson(MacrosOf(content.File));
    }
    else
    {
        json["ruleSet"] = RuleSetAsJson(RuleSetOf(content.File));
    }
    if (!content.IsWhole())
        json["problem"] = ProblemText(content);
    return json;
}

} // namespace

int Dump(Session& session, const std::string& file)
{
    const StoreFile place(session.ExistingPath(file));
    const LookedAt content = LookAt(place.Directory, place.Name);
    if (!content.File.Head.IsKnown)
        throw Failure(file + ": " + ProblemText(content));
    if (session.Options().Json)
        session.Terminal().Out(ContentAsJson(content).dump(2) + "\n");
    else
        Dumper(content).Dump(session.Terminal());
    return content.IsWhole() ? ExitDone : ExitFailed;
}

} // namespace Tool
