// import, export, list and show, from the outside.
#include "tests/tools/KxruleFixture.h"

#include <random>

#include <nlohmann/json.hpp>

#include "tools/kxrule/PolicyDiff.h"
#include "tools/kxrule/RuleJson.h"

using Json = nlohmann::json;

class PolicyCommands : public KxruleTest
{
protected:
    template <class Record>
    static Record RandomRecord(std::mt19937& random)
    {
        Record record;
        const uint32_t style = random() % 3;
        for (size_t i = 0; i < sizeof record; ++i)
            reinterpret_cast<uint8_t*>(&record)[i] =
                static_cast<uint8_t>(style == 0 || random() % (style == 1 ? 4 : 200) == 0 ? random() : 0);
        return record;
    }
};

TEST_F(PolicyCommands, ImportFillsAStoreThatAnotherProcessReads)
{
    const Run import = Kxrule({L"import", Example("workstation.json").wstring()});
    ASSERT_EQ(import.Code, 0) << import.Error;
    const Json policy = Json::parse(ReadBytes(Example("workstation.json")));

    const Run list = Kxrule({L"list", L"--json"});
    ASSERT_EQ(list.Code, 0) << list.Error;
    const Json sets = Json::parse(list.Out);
    ASSERT_EQ(sets.size(), policy["ruleSets"].size());
    const Json all = Json::parse(Kxrule({L"--json", L"show"}).Out);
    for (size_t i = 0; i < sets.size(); ++i)
    {
        const Json& set = policy["ruleSets"][i];
        EXPECT_EQ(sets[i]["index"], set["index"]);
        EXPECT_EQ(sets[i]["name"], set["name"]);
        EXPECT_EQ(sets[i]["rules"], set["rules"].size());
        const Json& active = policy["active"];
        EXPECT_EQ(sets[i]["active"], std::find(active.begin(), active.end(), set["index"]) != active.end());
        for (size_t rule = 0; rule < set["rules"].size(); ++rule)
        {
            // Every member that was written is there again.
            for (const auto& [name, value] : set["rules"][rule].items())
            {
                if (name != "extension") // its flag is written, too
                {
                    EXPECT_EQ(all["ruleSets"][i]["rules"][rule][name], value) << set["rules"][rule];
                }
            }
        }
    }
    EXPECT_EQ(all["macros"][2]["line"], "web-ports=80,443,8000:8999,8080|8443|9000:9010");

    const Run show = Kxrule({L"show"});
    EXPECT_NE(show.Out.find("     32  ACCESS,TCPUDP,,!10.20.0.10:10.20.0.11,,53|853,REJECT\n"), std::string::npos);
    EXPECT_NE(show.Out.find("Unterwegs – hôtels, cafés, 駅"), std::string::npos);
    EXPECT_EQ(show.Out.find('\r'), std::string::npos);
    EXPECT_EQ(show.Out.find('\x1b'), std::string::npos);
}

TEST_F(PolicyCommands, ASecondImportWritesNothing)
{
    ASSERT_EQ(Kxrule({L"import", Example("workstation.json").wstring()}).Code, 0);
    const std::string before = Snapshot();
    for (const wchar_t* const option : {L"--merge", L"--replace"})
    {
        const Run again = Kxrule({L"import", Example("workstation.json").wstring(), option});
        EXPECT_EQ(again.Code, 0) << again.Error;
        EXPECT_EQ(again.Out, "nothing changed\n");
        EXPECT_TRUE(Snapshot() == before);
    }
}

TEST_F(PolicyCommands, ABadFileIsRefusedWholly)
{
    ASSERT_EQ(Kxrule({L"import", Example("workstation.json").wstring()}).Code, 0);
    const std::string before = Snapshot();
    const std::wstring bad =
        Write("böse.json", "{\"ruleSets\": [\n  {\"index\": 0, \"name\": \"x\"},\n  {\"index\": 1 \"nam\": 2}]}");
    const Run import = Kxrule({L"import", bad});
    EXPECT_EQ(import.Code, 1);
    EXPECT_EQ(import.Out, "");
    std::vector<std::string> places;
    for (size_t at = 0; (at = import.Error.find(".json:", at)) != std::string::npos;)
        places.push_back(import.Error.substr(at += 6, 4));
    EXPECT_EQ(places, (std::vector<std::string>{"2:13", "3:3:", "3:15", "3:15"})) << import.Error;
    EXPECT_TRUE(Snapshot() == before);
}

TEST_F(PolicyCommands, CheckTellsAndChangesNothing)
{
    const std::wstring example = Example("workstation.json").wstring();
    EXPECT_EQ(Kxrule({L"import", example, L"--check"}).Code, 3);
    EXPECT_EQ(Snapshot(), "none");
    ASSERT_EQ(Kxrule({L"import", example}).Code, 0);
    const std::string before = Snapshot();
    EXPECT_EQ(Kxrule({L"import", example, L"--check"}).Code, 0);
    const std::wstring other =
        Write("other.json", R"({"ruleSets": [{"index": 5, "name": "Bandbreite – limits", "rules": [
        {"index": 400, "kind": "nat", "natType": "masq"}]}]})");
    const Run merge = Kxrule({L"import", other, L"--check"});
    EXPECT_EQ(merge.Code, 3);
    EXPECT_NE(merge.Out.find("~ rule set 5  \"Bandbreite – limits\"\n  ~ rule 400"), std::string::npos) << merge.Out;
    const Json replace = Json::parse(Kxrule({L"import", other, L"--check", L"--replace", L"--json"}).Out);
    EXPECT_EQ(replace["ruleSets"].size(), 7u); // all others go
    EXPECT_EQ(replace["ruleSets"][0]["change"], "removed");
    EXPECT_EQ(replace["ruleSets"][4]["rules"].size(), 6u);
    EXPECT_FALSE(replace.contains("macros"));
    EXPECT_TRUE(Snapshot() == before);
}

TEST_F(PolicyCommands, ReplaceMakesTheStoreWhatTheFileSays)
{
    ASSERT_EQ(Kxrule({L"import", Example("workstation.json").wstring()}).Code, 0);
    const std::string json = R"({"active": [9], "macros": [], "ruleSets": [
        {"index": 5, "name": "another name", "rules": [{"index": 0, "kind": "nat", "natType": "masq"}]},
        {"index": 9, "name": "Neu", "rules": [{"index": 0, "kind": 9}, {"index": 1, "kind": "access2", "ports": ["list:", "any"]}]}]})";
    const std::wstring file = Write("new.json", json);
    const Run replace = Kxrule({L"import", file, L"--replace"});
    ASSERT_EQ(replace.Code, 0) << replace.Error;
    const Run exported = Kxrule({L"export"});
    const Json store = Json::parse(exported.Out);
    EXPECT_EQ(store["ruleSets"].size(), 2u) << exported.Out;
    EXPECT_EQ(store["ruleSets"][0]["name"], "another name");
    EXPECT_EQ(store["macros"].size(), 0u);
    EXPECT_EQ(store["active"], Json({9}));
    EXPECT_FALSE(std::filesystem::exists(RuleDirectory() / "KxRl0001.dat"));
    // What was deleted is kept.
    size_t kept = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(RuleDirectory() / "RuleBackup"))
        kept += entry.is_regular_file() ? 1 : 0;
    EXPECT_EQ(kept, 9u);
    // Rules that the library deletes or adds only together with others: index 0, and an empty list in the second layout.
    const std::wstring changed = Write("changed.json", R"({"ruleSets": [{"index": 9, "name": "Neu", "rules": [
        {"index": 0, "kind": 10}, {"index": 1, "kind": "access2", "ports": ["list: ", "any"]}]}]})");
    const Run merge = Kxrule({L"import", changed});
    EXPECT_EQ(merge.Out, "1 rule set changed, 2 rules changed\n") << merge.Error;
    EXPECT_EQ(Kxrule({L"import", changed}).Out, "nothing changed\n");
}

// Whatever bytes a store holds: exported and imported elsewhere, they are the same, and so is their text.
TEST_F(PolicyCommands, ExportAndImportLoseNothing)
{
    std::mt19937 random(11);
    Tool::Policy policy;
    policy.Active = {7, 7, 65280};
    policy.Macros.emplace();
    for (int i = 0; i < 20; ++i)
    {
        Tool::MacroRecord& macro = policy.Macros->emplace_back();
        for (uint32_t byte = random() % 32; byte > 0; --byte)
            macro.Name += static_cast<char>(1 + random() % 255);
        for (uint32_t item = random() % 4; item > 0; --item)
            macro.Items.push_back(RandomRecord<MACRO_ITEM>(random));
    }
    for (const uint16_t index : {1, 500, 65280})
    {
        Tool::RuleSetRecord& ruleSet = policy.RuleSets.emplace_back();
        ruleSet.Index = index;
        for (uint32_t unit = random() % 65; unit > 0; --unit)
            ruleSet.Name += static_cast<wchar_t>(1 + random() % 65535);
        for (uint16_t rule = 0; rule < 120; ++rule)
        {
            PFW_RULE record = RandomRecord<PFW_RULE>(random);
            record.wRuleIndex = static_cast<uint16_t>(rule * 500);
            record.dwKind = rule % 8;
            if (!Tool::HasBlankPortList(record))
                ruleSet.Rules.push_back(record);
        }
    }
    ASSERT_EQ(Kxrule({L"import", Write("a.json", Tool::PolicyToJson(policy))}).Code, 0);
    const std::filesystem::path first = m_Directory / "first.json";
    ASSERT_EQ(Kxrule({L"export", L"-o", first.wstring()}).Code, 0);
    const auto files = [this]
    {
        std::string bytes;
        for (const char* const name : {"KxRulMac.dat", "KxRl0001.dat", "KxRl01F4.dat", "KxRlFF00.dat"})
            bytes += ReadBytes(RuleDirectory() / name);
        return bytes;
    };
    const std::string before = files();
    std::filesystem::remove_all(RuleDirectory());
    ASSERT_EQ(Kxrule({L"import", first.wstring()}).Code, 0);
    EXPECT_TRUE(files() == before);
    EXPECT_TRUE(Kxrule({L"export", L"-o", L"-"}).Out == ReadBytes(first));
    // The records themselves, but for what the library puts in order.
    Tool::Policy exported;
    std::vector<Tool::JsonError> errors;
    ASSERT_TRUE(Tool::ReadPolicy(ReadBytes(first), exported, errors));
    EXPECT_TRUE(Tool::Compare(exported, policy, Tool::MergeMode::Replace).IsEmpty())
        << Tool::DiffText(Tool::Compare(exported, policy, Tool::MergeMode::Replace)).substr(0, 2000);
}

TEST_F(PolicyCommands, UsageErrorsAreTold)
{
    const struct
    {
        std::vector<std::wstring> Arguments;
        int Code;
    } cases[] = {
        {{}, 2},
        {{L"nonsense"}, 2},
        {{L"show", L"0"}, 2},
        {{L"show", L"1", L"65536"}, 2},
        {{L"import"}, 2},
        {{L"import", L"missing.json"}, 1},
        {{L"show", L"999"}, 1},
        {{L"--help"}, 0},
        {{L"import", L"--help"}, 0},
    };
    for (const auto& c : cases)
    {
        const Run run = Kxrule(c.Arguments);
        EXPECT_EQ(run.Code, c.Code) << run.Out << run.Error;
        EXPECT_EQ(run.Error.empty(), c.Code == 0) << run.Error;
    }
}
