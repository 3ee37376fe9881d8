// The commands that look, change and care, from the outside: one story each, as a table of what is typed and what comes.
#include "tests/tools/KxruleFixture.h"

#include <functional>

#include <nlohmann/json.hpp>

#include "common/srclib/KxComn_Names.h"

using Json = nlohmann::json;

class Commands : public KxruleTest
{
protected:
    struct Step
    {
        std::vector<std::wstring> Arguments;
        int Code;
        const char* Says; // somewhere in what it prints
    };

    void Follow(const std::vector<Step>& steps)
    {
        for (const Step& step : steps)
        {
            const Run run = Kxrule(step.Arguments);
            std::string typed;
            for (const std::wstring& argument : step.Arguments)
                typed += std::filesystem::path(argument).string() + " ";
            EXPECT_EQ(run.Code, step.Code) << typed << "\n" << run.Out << run.Error;
            EXPECT_NE((run.Out + run.Error).find(step.Says), std::string::npos) << typed << "\n"
                                                                                << run.Out << run.Error;
        }
    }
    void Import()
    {
        const Run run = Kxrule({L"import", Example("workstation.json").wstring()});
        ASSERT_EQ(run.Code, 0) << run.Error;
    }
    void Damage(const char* name, const std::function<void(std::string&)>& damage)
    {
        std::string bytes = ReadBytes(RuleDirectory() / name);
        damage(bytes);
        WriteBytes(RuleDirectory() / name, bytes);
    }
};

TEST_F(Commands, Change)
{
    const std::wstring rule = Write("rule.json", R"({"index": 5, "kind": "nat", "natType": "snat"})");
    Follow({
        {{L"list"}, 1, "is no directory"},
        {{L"add-set", L"Zuhause ü 家"}, 0, "rule set 1 added"},
        {{L"add-set", L"Reise", L"--index", L"700"}, 0, "rule set 700 added"},
        {{L"add-set", L"Reise", L"--index", L"700"}, 1, "there is a rule set 700 already"},
        {{L"add-set", std::wstring(65, L'x')}, 1, "64 UTF-16 units, this one has 65"},
        {{L"add-set", L"next", L"--json"}, 0, "{\"index\":701}"},
        {{L"add-rule", L"700", rule}, 0, "1 rule added"},
        {{L"add-rule", L"700", rule}, 1, "has a rule 5 already; use --replace"},
        {{L"add-rule", L"700", L"{\"index\": 5, \"kind\": \"nat\", \"natType\": \"dnat\"}", L"--replace"},
         0,
         "1 rule changed"},
        {{L"add-rule", L"700",
          L"{\"index\": 0, \"kind\": \"access\", \"action\": \"drop\", \"addresses\": [\"@v6\", \"fe80::1\"]}"},
         0,
         "1 rule added"},
        {{L"add-rule", L"700", L"{\"index\": 70000}"}, 1, "RULE:1:1: \"kind\" is missing"},
        {{L"add-rule", L"9", rule}, 1, "there is no rule set 9"},
        {{L"show", L"700"}, 0, "      0  ACCESS,ANY,v6,,,,DROP\n         @v6 fe80::1\n      5  NAT,ANY,,,,,,,DNAT\n"},
        {{L"show", L"700", L"0"}, 0, "\"addresses\": [\"@v6\", \"fe80::1\"]"},
        {{L"show", L"700", L"1"}, 1, "kxrule: rule set 700 has no rule 1\n"},
        {{L"show", L"700", L"1", L"--json"}, 1, "{\"error\": \"rule set 700 has no rule 1\", \"exitCode\": 1}"},
        {{L"--json", L"shwo"}, 2, "{\"error\": \"\\\"shwo\\\" is no command; --help tells more\", \"exitCode\": 2}"},
        {{L"show", L"/1"}, 2, "Value /1 not in range"}, // no option of the old style: a path may begin like that
        {{L"find", L"fe80::/64", L"--json"}, 0, "\"where\": \"addresses\""},
        {{L"find", L"reise"}, 0, "Rule set 700  Reise"},
        {{L"find", L"10.0.0.1"}, 0, "nothing speaks of it"},
        {{L"active"}, 0, "no rule set is active"},
        {{L"activate", L"700", L"1"}, 0, "active list changed"},
        {{L"activate", L"700", L"1"}, 0, "nothing changed"},
        {{L"active"}, 0, "700  Reise\n1  Zuhause ü 家\n"},
        {{L"activate", L"2"}, 1, "there is no rule set 2"},
        {{L"activate"}, 2, "--none"},
        {{L"activate", L"--none"}, 0, "active list changed"},
        {{L"active", L"--json"}, 0, "[]"},
        {{L"delete-rule", L"700", L"0"}, 0, "1 rule removed"},
        {{L"delete-rule", L"700", L"1"}, 1, "has no rule 1"},
        {{L"delete-rule", L"700"}, 2, "--all"},
        {{L"delete-rule", L"700", L"--all"}, 0, "1 rule removed"},
        {{L"delete-set", L"2"}, 1, "there is no rule set 2"},
        {{L"delete-set", L"700", L"701"}, 0, "2 rule sets removed"},
        {{L"macros", L"import", Example("workstation.json").wstring()}, 0, "macros changed"},
        {{L"macros"}, 0, "web-ports=80,443,8000:8999,8080|8443|9000:9010\n"},
        {{L"macros", L"--json"}, 0, "\"line\": \"file-servers="},
        {{L"macros", L"clear"}, 0, "macros removed"},
        {{L"macros"}, 0, ""},
        {{L"list"}, 0, "    1      0  no      Zuhause ü 家\n1 rule set, 0 macros\n"},
        {{L"refresh-hashes"}, 0, "0 hashes computed"},
    });
}

TEST_F(Commands, RefuseWhileAnotherProcessHasTheLibrary)
{
    Import();
    const std::string before = Snapshot();
    const std::wstring name = L"Global\\" + std::wstring(KxCommon::Names::kMutexName);
    const KxCommon::UniqueKernelObject mutex(::CreateMutexW(nullptr, FALSE, name.c_str()));
    ASSERT_TRUE(mutex);
    const std::wstring directory = RuleDirectory().wstring();
    for (const std::vector<std::wstring>& arguments :
         std::vector<std::vector<std::wstring>>{{L"import", Example("workstation.json").wstring()},
                                                {L"macros", L"clear"},
                                                {L"delete-set", L"1"},
                                                {L"add-set", L"x"},
                                                {L"restore", directory + L"\\KxRl0001.dat"}})
    {
        std::vector<std::wstring> all = arguments;
        all.insert(all.end(), {L"--dir", directory});
        const Run run = Start(all);
        EXPECT_EQ(run.Code, 1);
        EXPECT_NE(run.Error.find("another process has the rule library initialised"), std::string::npos) << run.Error;
    }
    EXPECT_EQ(Start({L"--dir", directory, L"list"}).Code, 0); // looking is free
    EXPECT_TRUE(Snapshot() == before);
}

TEST_F(Commands, VerifyTellsWhatTheLibraryWouldDo)
{
    Import();
    const auto cut = [](std::string& bytes) { bytes.resize(bytes.size() - 1000); };
    const auto first = [](std::string& bytes) { bytes[0] = 'X'; };
    const struct
    {
        const char* Name;
        const char* File;                         // null: no master file
        std::function<void(std::string&)> Damage; // null: it cannot be opened, being a directory
        const char* Says;
    } cases[] = {
        {"a good store", "KxRl0001.dat", [](std::string&) {}, "nothing is damaged"},
        {"a cut set", "KxRl0003.dat", cut, "rule 17 of 17 is damaged or cut short"},
        {"a cut set's rescue", "KxRl0003.dat", cut, "keeping 16 rules in front of the damage"},
        {"another magic", "KxRl0003.dat", first, "it does not begin as a rule file does"},
        {"an empty set", "KxRl0003.dat", [](std::string& bytes) { bytes.clear(); }, "it is empty"},
        {"cut macros", "KxRulMac.dat", cut, "report -10056 KXRULE_E_FILE_READ"},
        {"another macro magic", "KxRulMac.dat", first, "report -10060 KXRULE_E_MACRO_FORMAT"},
        {"a cut master", "KxRulMas.dat", [](std::string& bytes) { bytes.resize(200); },
         "rule sets whose names could be read would become rescue sets"},
        {"a changed byte", "KxRl0003.dat", [](std::string& bytes) { bytes[3500] = static_cast<char>(~bytes[3500]); },
         "1 rule with bytes that no field explains"},
        {"no master", nullptr, {}, "it is missing"},
        {"a closed master", "KxRulMas.dat", {}, "below RuleBackup, start empty, and before its first write copy"},
        {"closed macros", "KxRulMac.dat", {}, "would go on without macros, and before its first write copy"},
        {"a closed set", "KxRl0003.dat", {}, "a rescue set would take its place in memory; the file stays until"},
    };
    const std::filesystem::path good = m_Directory / "good";
    std::filesystem::copy(RuleDirectory(), good);
    for (const auto& c : cases)
    {
        std::filesystem::remove_all(RuleDirectory());
        std::filesystem::copy(good, RuleDirectory());
        if (c.Damage)
            Damage(c.File, c.Damage);
        else
            std::filesystem::remove(RuleDirectory() / (c.File != nullptr ? c.File : "KxRulMas.dat"));
        if (c.File != nullptr && !c.Damage)
            std::filesystem::create_directory(RuleDirectory() / c.File);
        const std::string before = Snapshot();
        const Run verify = Kxrule({L"verify"});
        const Json json = Json::parse(Kxrule({L"verify", L"--json"}).Out);
        const bool damaged = json["damaged"];
        EXPECT_EQ(verify.Code, damaged ? 1 : 0) << c.Name << verify.Error;
        EXPECT_NE(verify.Out.find(c.Says), std::string::npos) << c.Name << "\n" << verify.Out;
        // Looking at a damaged store would change it.
        EXPECT_EQ(Kxrule({L"list"}).Code, damaged ? 1 : 0) << c.Name;
        EXPECT_EQ(Kxrule({L"import", Example("workstation.json").wstring(), L"--check"}).Code,
                  damaged                                 ? 1
                  : json["files"][4]["finding"] == "good" ? 0
                                                          : 3)
            << c.Name;
        EXPECT_TRUE(Snapshot() == before) << c.Name;
    }
}

TEST_F(Commands, BackupAndRestore)
{
    Import();
    const std::filesystem::path backup = m_Directory / "backup";
    const std::wstring all = (backup).wstring();
    const std::wstring one = (backup / "KxRl0002.dat").wstring();
    const std::string before = Kxrule({L"export"}).Out;
    Follow({{{L"backup", all, L"--json"}, 0, "\"copied\": [\n    \"KxRulMas.dat\","},
            {{L"backup", all}, 1, "is not an empty directory"},
            {{L"restore", one}, 0, "nothing changed"},
            {{L"delete-set", L"2", L"3"}, 0, "2 rule sets removed"},
            {{L"add-set", L"later", L"--index", L"90"}, 0, "added"},
            {{L"restore", one}, 0, "1 rule set added, 20 rules added"},
            {{L"restore", (backup / "KxRulMas.dat").wstring()}, 1, "is restored with its directory"},
            {{L"macros", L"clear"}, 0, ""},
            {{L"restore", (backup / "KxRulMac.dat").wstring()}, 0, "1 file restored; what was there before lies in"},
            {{L"macros"}, 0, "web-ports="},
            {{L"restore", all}, 0, "9 files restored; what was there before lies in"}});
    EXPECT_TRUE(Kxrule({L"export"}).Out == before);
    EXPECT_FALSE(std::filesystem::exists(RuleDirectory() / "KxRl005A.dat")); // what came later is in RuleBackup
    const std::string kept = Snapshot();
    EXPECT_NE(kept.find("RuleBackup"), std::string::npos);
    EXPECT_NE(kept.find("KxRl005A.dat"), std::string::npos);

    // A damaged source is refused before anything is touched.
    std::string bytes = ReadBytes(backup / "KxRl0002.dat");
    WriteBytes(backup / "KxRl0002.dat", bytes.substr(0, 5000));
    Follow({{{L"restore", all}, 1, "is damaged and is not restored"},
            {{L"restore", one}, 1, "rule 2 of 20 is damaged or cut short"},
            {{L"restore", (backup / "none").wstring()}, 1, "does not exist"},
            {{L"restore", RuleDirectory().wstring()}, 1, "is the rule directory itself"}});
    EXPECT_TRUE(Snapshot() == kept);
    // A store whose set is damaged gets it back from a good copy.
    WriteBytes(backup / "KxRl0002.dat", bytes);
    Damage("KxRl0002.dat", [](std::string& damaged) { damaged.resize(3000); });
    Follow({{{L"restore", one}, 0, ""}, {{L"verify"}, 0, "nothing is damaged"}});
    EXPECT_TRUE(Kxrule({L"export"}).Out == before);
}

TEST_F(Commands, TidyRemovesOnlyWhatWritesLeave)
{
    Import();
    const std::string before = Snapshot();
    for (const char* const name : {"Mas1.tmp", "mac1F.TMP", "RulABCD.tmp"})
        WriteBytes(RuleDirectory() / name, "x");
    Follow({{{L"verify"}, 0, "an unfinished write"},
            {{L"tidy"}, 1, "--yes"},
            {{L"tidy", L"--yes", L"--json"}, 0, "{\n  \"removed\": [\n    \"Mas1.tmp\",\n"}});
    EXPECT_TRUE(Snapshot() == before);
    const char* const others[] = {"Master.tmp", "Rul.tmp", "Rul12345.tmp", "Rul1.tmp.txt", "RulG.tmp"};
    for (const char* const name : others)
        WriteBytes(RuleDirectory() / name, "x");
    Follow({{{L"tidy", L"--yes"}, 0, "no temporary files"}});
}

TEST_F(Commands, DumpShowsEveryField)
{
    const auto data = [](const char* name) { return (std::filesystem::path("tests/data") / name).wstring(); };
    Follow({
        {{L"dump", data("master.dat")}, 0, "next index"},
        {{L"dump", data("macros.dat")}, 0, "items"},
        {{L"dump", data("ruleset.dat")}, 0, "rules"},
        {{L"dump", data("ruleset-old.dat")}, 0, "0x00010000"},
        {{L"dump", data("make_files.py")}, 1, "it does not begin as a rule file does"},
        {{L"dump", L"missing"}, 1, "it cannot be opened: error 2"},
    });
    Import();
    const Run dump = Kxrule({L"dump", (RuleDirectory() / "KxRl0005.dat").wstring()});
    // Where docs/format.md puts them: the records behind a name of 38 bytes.
    EXPECT_NE(dump.Out.find("\n  2988   2852  rule 401"), std::string::npos) << dump.Out.substr(0, 3000);
    EXPECT_NE(dump.Out.find("addresses    [\"172.16.8.0/24\",\"any\"]"), std::string::npos);
    Damage("KxRl0005.dat", [](std::string& bytes) { bytes.resize(9000); });
    Follow({{{L"dump", (RuleDirectory() / "KxRl0005.dat").wstring()}, 1, ""}});
    EXPECT_EQ(
        Json::parse(Kxrule({L"dump", L"--json", (RuleDirectory() / "KxRl0005.dat").wstring()}).Out)["ruleSet"]["rules"]
            .size(),
        3u);
}

// docs/kxrule.md is what the tool says about itself: kxrule manual > docs/kxrule.md
TEST_F(Commands, TheManualIsUpToDate)
{
    EXPECT_TRUE(Start({L"manual"}).Out == ReadBytes("docs/kxrule.md"));
    for (const wchar_t* const shell : {L"bash", L"powershell"})
        EXPECT_NE(Start({L"completion", shell}).Out.find("refresh-hashes"), std::string::npos);
    EXPECT_EQ(Start({L"completion", L"other"}).Code, 2);
}
