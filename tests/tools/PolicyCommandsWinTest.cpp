// import, list and show, from the outside.
#include "tests/tools/KxruleFixture.h"

#include <nlohmann/json.hpp>

using Json = nlohmann::json;

class PolicyCommands : public KxruleTest
{
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
        EXPECT_EQ(Snapshot(), before);
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
    EXPECT_EQ(Snapshot(), before);
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
