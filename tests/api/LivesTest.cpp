// Several runs on one directory, and what people and programs do to it in between: no rule must be lost.
#include "tests/api/Lives.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "tests/torture/Scale.h"

TEST(Lives, NothingIsLostWhereNothingFails)
{
    const char* const scripts[] = {
        // what is written when
        R"(life; rule 9 =-10015; flush; gone mas; nomacro; flush; cut mas; end; remove mas; life; active; flush;
           cut mas; end; remove mas; life; macro; flush; cut mas; add 1; flush; cut 1; remove 1; remove mas; flush;
           cut mas; gone 1; again 1 =-10019; flush; cut 1; rule 1; end; life; sets 1 m; end)",
        // somebody lets nobody read the master file, or one set
        R"(store 1 2 5; hold mas none; open; read =-10055; sets; end; release; life; sets 1 2 5 m; end; hold 2 none;
           life; sets 1 2? 5 m; macro; write; end; release; life; sets 1 2 5 m~; end)",
        // the volume comes after the read
        R"(store 1 2 5; rename vol away; life; sets; rename away vol; add 1; end; life; sets 1; add 2; end; life;
           sets 1 2; end)",
        // nobody has read
        R"(store 1 2 5; open; add 1; macro; write; end; life; sets 1 m; backups 1; end)",
        // a scanner opens each temporary file
        R"(store 1 2; scanner full; life; rule 1; end; life; sets 1 2 m; macro; delete 2; add 3; flush; end; release;
           scanner read; life; rule 3; write; sets 1 3 m; end; release; life; sets 1 3 m; end)",
        // a set in the file of another one, which then comes back
        R"(store 2 5; rename 5 2; life; sets 5 m; add 2; folder 5; write =any; delete 5 =any; remove 5; write; end;
           life; sets 2 m; end)",
        // a name outside the code page
        R"(store 1 2; plain odd; cut mas; life; sets 1? m; macro; write; end; life; sets 1? m; add 3; write; end;
           life; sets 1? 3 m; backups 1; end)",
        // a master file that is none, or gone
        R"(store 1 2; plain mas; life; sets; add 1; macro; end; life; sets 1 m; end; copy 1 KxRl00011.dat;
           remove mas; life; sets; cut KxRl00011.dat; end; life; sets; end)",
        // a macro file that is none, and nobody minds
        R"(store 1 2; cut mac; life =-10056; sets; add 9; write; macro; write; backups 1; end; life; sets 9 m; end)",
        // a damaged set
        R"(store 1 2; life; rule 2 2; write; end; cut 2; copy 2 ..\saved; life; sets 1 2? m;
           same ..\saved RuleBackup\KxRl0002.dat.brk; end; life; sets 1 2? m; rule 2; end; cut 2 3000; life;
           sets 1 2? m; end; remove 2; remove RuleBackup; life; sets 1 2? m; gone RuleBackup; end)",
        // another macro file
        R"(store 1; rename mac Other.dat; list Other.dat KxRl0001.dat; life; sets 1; macro; end; life; sets 1 m;
           gone mac; end)",
        // folders in the way
        R"(store 1 2; life; rule 2; remove 2; folder 2; write =-10057; remove 2; write; add 3; folder 3;
           write =-10057; delete 1; end; life; sets 2 m; end)",
        // several backups in one second
        R"(store 1 2; cut mas; life; add 2; end; cut mas; life; add 2; end; cut mas; life; end)",
        // a file that must not be written
        R"(store 1; attributes 1 1; life; rule 1; write =any; attributes 1 128; write; end; life; sets 1 m; end)",
        // names exchanged
        R"(store 1 2 5; ring 1 2; life; sets 1 2 5 m; rule 1; end; life; sets 1 2 5 m; delete 2; end; life;
           sets 1 5 m; end)",
        // names in a ring, and two of the sets are damaged or gone: a rescue set takes the place of none that is whole
        R"(store 1 2 3 4 5; ring 1 2 3; cut 2; remove 4; life; sets 1 2 4? 5 m; rule 1; end; life; sets 1 2 4? 5 m;
           end)",
        // names exchanged, and one of the sets cannot be written
        R"(store 1 2; ring 1 2; life; rule 1; hold 2 none; write =-10057; end; release; life; sets 1~ 2 m; end)",
        // names in a ring, and one of the sets cannot be written
        R"(store 1 2 3; ring 1 2 3; life; rule 3; hold 1 none; write =any; end; release; life; sets 1 2 3~ m;
           rule 1 2 3; end; life; sets 1 2 3 m; end)",
        // names exchanged, and one of the files is held from the beginning
        R"(store 2 3; ring 2 3; hold 2 none; life =any; macro; write =any; end; release; life; sets 2 3; end)",
        // neither master nor macro file is whole
        R"(store 1 2; cut mas; cut mac; life =-10056; end; remove mac; life; sets 1?; end)",
        // a new set for the file of one that cannot be written
        R"(store 3 7; rename 7 3; life; add 3; folder 7; write =-10057; end; remove 7; life; end)",
        // a failed reload, and the end
        R"(store 1 2; life; add 9; cut mac; read =-10056; end; remove mac; life; sets 1 2; end; life; sets 1 2; end)",
        // a second read after a backup
        R"(store 1 2; cut mas; life; sets 1? m; read; sets 1? m; end; life; sets 1? m; end)",
        // a file of the old version
        R"(store 7; remove 7; old 7; life; rule 7; write; rule 7; end; life; sets 7 m; end)",
        // a relative path
        R"(store 1 2; enter base; open relative; enter back; read; sets 1 2 m; rule 1; end; life; sets 1 2 m; end)",
        // no room for backups, and a damaged set
        R"(store 1 2; plain RuleBackup; cut 2; life; sets 1 2? m; macro; write; end; life; sets 1 2? m; rule 2; end;
           life; sets 1 2 m; end)",
        // no room for backups, and a damaged master file
        R"(store 1 2; plain RuleBackup; cut mas; life; add 9; macro; write; end; life; sets 1~ 9 m; end)",
        // no room for backups, and nobody has read
        R"(store 1 2; plain RuleBackup; open; add 1; macro; write; end; life; sets 1 m; end)",
        // a busy file's copy, and its rescue set is damaged as well
        R"(store 1 2; hold 2 writer; life; sets 1 2? m; end; release; cut 2; life; sets 1 2? m; end; cut 2; life;
           sets 1 2? m; end)",
        // a file that is not listed
        R"(store 1 7; copy 7 saved; life; delete 7; end; rename saved 7; life; sets 1 m; add 7; end; life;
           sets 1 7 m; end)",
        // a directory that cannot be used, and one that cannot be used for a time
        R"(open a?b; read =any; add 1; write =-10055; delete 1 =-10055; end; store 1 2; rename vol away; plain vol;
           life; add 5; write =-10055; delete 5 =-10055; end; remove vol; rename away vol; life; sets 1 2 m;
           rename vol away; rule 1; flush =-10055; rename away vol; end; life; sets 1 2 m; end)",
        // without a start nothing touches the disk, and a second start is none
        R"(add 1; read =-10055; write =-10055; flush =-10055; delete 0 =-10055; end; end; gone .; store 1 2; life;
           open =-10061; sets 1 2 m; end; open; sets; end)",
        // names of the caller's: of the master file, of another file, of a directory; and the library's own directory
        R"(open . other.dat; add 1; end; life; sets; end; open . KxRl0005.dat; add 5; write =-10057; end; open new; end;
           rename new old; open none own.dat; delete 0; end; cut ..\..\own.dat)",
        // the next index is 0, which is none, and there are more sets than can be added
        R"(store 1; forge 1; life; delete 1; add 0; sets 1; end; forge 65; life; delete 1; add 0 =-10017;
           delete 2; add 0; end)",
        // master and macro file are written again only if they would change, or somebody has touched them
        R"(store 1; life; rule 1; flush; replaced mas; replaced mac; rule 1; flush; kept mas; kept mac;
           flip mas 0; rule 1; flush; replaced mas; kept mac; flip mac 4; rule 1; flush; replaced mac; kept mas;
           flip mas 9999; flip mac 9999; rule 1; flush; replaced mas; replaced mac; touch mas; rule 1; flush; replaced mas;
           remove mac; rule 1; flush; replaced mac; hold mas read; write =-10057; release; end; life; sets 1 m; end)",
    };
    for (const char* const script : scripts)
        EXPECT_EQ(Lives().Run(script), "");
}

// Another program holds a file, or opens each temporary file for a moment: what each call returns, and that all is well
// when the file is closed. A file that nobody may read counts as busy; one that nobody may write obstructs a write.
TEST(Lives, EveryHolderOfEveryFile)
{
    // FILE is the file, WHO says how it is held, CODE is the expected result, by file: if everything is shared, if
    // reading is, and if nothing is.
    const std::pair<const char*, std::map<std::string, std::string>> rows[] = {
        {"hold FILE WHO; open; read =CODE; end; release; life; sets 1 2 5 m; end",
         {{"mas", "0 0 -10055"}, {"mac", "0 0 -10055"}, {"2", "0 0 0"}, {"5", "0 0 -10057"}}}, // the last one counts
        {"life; rule 1 2; delete 5; macro; hold FILE WHO 500; write =CODE; release; macro; write; sets 1 2 m; end; "
         "life; sets 1 2 m; end",
         {{"mas", "0 -10057 -10057"}, {"mac", "0 -10057 -10057"}, {"2", "0 -10057 -10057"}, {"tmp", "0 0 0"}}},
        {"life; hold FILE WHO; delete 2 =CODE; release; sets 1 5 m; end; life; sets 1 5 m; add 2; end; life;"
         "sets 1 2 5 m; end",
         {{"mas", "0 -10057 -10057"}, {"mac", "0 0 0"}, {"2", "0 0 0"}, {"tmp", "0 0 0"}}},
        {"life; rule 2; add 3; macro; hold FILE WHO 1000; end =CODE; release; life; sets 1 2 3 5 m; end",
         {{"mas", "0 0 0"}, {"mac", "0 0 0"}, {"2", "0 0 0"}, {"tmp", "0 0 0"}}},
    };
    Lives lives; // one: each copies and loads the library
    for (const auto& [script, holders] : rows)
    {
        for (const auto& [file, codes] : holders)
        {
            std::istringstream words(codes);
            for (const char* const who : {"full", "read", "none"})
            {
                std::string code;
                words >> code;
                const std::string all = Replaced(Replaced(script, "FILE", file), "WHO", who);
                ASSERT_EQ(
                    lives.Run("remove .; store 1 2 5;" + Replaced(Replaced(all, "CODE", code), "hold tmp", "scanner")),
                    "");
            }
        }
    }
}

static BOOL WINAPI DoNotFlush(HANDLE)
{
    return TRUE;
}

// Random sequences that nobody would think of; Lives checks the outcome. Scale.h has the seed.
TEST(Lives, AnyLivesLoseNothing)
{
    const char* const between = R"(
        rename $1 $2|ring 1 2|ring $1 3|ring 2 3 4|copy $1 ..\s$2|remove $1; copy ..\s$2 $1|cut $1|cut mas|plain $1|
        cut mac; remove mas|old $1|folder $1|remove RuleBackup; plain RuleBackup|plain odd|hold $1 read|hold mas full|
        hold mac full|remove mac|remove RuleBackup)";
    // A file written without the library's knowledge must be one that it has no set for.
    const char* const within = R"(
        rule $1 $2|rule $1 $2 $3|add $1 $2 $3|delete $1|macro|write|write|flush|cut $1|
        cut mac; read|copy ..\s$1 $2|copy $1 ..\s$2|read|rule $1; hold $2 read; write; release)";
    Campaign campaign("lives");
    std::string wrong;
    while (wrong.empty() && campaign.Next(6))
    {
        Lives lives;
        lives.Redirect("FlushFileBuffers", reinterpret_cast<void*>(DoNotFlush)); // nobody pulls the plug here
        const auto tell = [&](const std::string& what, uint32_t most)
        {
            for (uint32_t i = campaign.Random(most); i > 0 && wrong.empty(); --i)
            {
                std::istringstream statements(what);
                std::string script;
                for (auto n = campaign.Random(static_cast<uint32_t>(std::count(what.begin(), what.end(), '|')) + 1) + 1;
                     n > 0; --n)
                    std::getline(statements, script, '|');
                for (size_t at; (at = script.find('$')) != std::string::npos;)
                    script.replace(at, 2, std::to_string(1 + campaign.Random(5)));
                wrong = lives.Run(Replaced(script, ";", " =any;") + " =any");
            }
        };
        wrong = lives.Run("store 1 2 3 4");
        for (int life = 0; life < 12 && wrong.empty(); ++life)
        {
            tell(between, 3);
            wrong += lives.Run("life =any; release");
            tell(within, 14);
            wrong += lives.Run("end");
        }
    }
    EXPECT_EQ(wrong, "");
}
