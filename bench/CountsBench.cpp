// Counts the file calls that a full write and a full read make to the system, and prints the counts as JSON. Built from
// the library's objects, which call the system for files only in persistence/Files.
//
//     counts_bench.exe --data=DIR --out=FILE
#include <fstream>
#include <iostream>

#include "bench/Bench.h"
#include "bench/OurStore.h"
#include "persistence/Files.h"

using namespace Bench;
using Files::Operation;

namespace
{

constexpr struct
{
    Operation What;
    const char* Name;
} kOperations[] = {
    {Operation::Open, "open"},
    {Operation::Size, "size"},
    {Operation::Read, "read"},
    {Operation::Write, "write"},
    {Operation::Flush, "flush"},
    {Operation::Close, "close"},
    {Operation::TemporaryName, "temporary name"},
    {Operation::Attributes, "attributes"},
    {Operation::Move, "move"},
    {Operation::Copy, "copy"},
    {Operation::Delete, "delete"},
    {Operation::MakeDirectory, "make directory"},
    {Operation::Find, "find"},
};
int g_Counts[std::size(kOperations)];

DWORD Count(Operation operation)
{
    for (size_t i = 0; i < std::size(kOperations); ++i)
        g_Counts[i] += kOperations[i].What == operation;
    return 0;
}

template <class Work>
void Counted(std::ostream& out, const char* name, Work work)
{
    std::fill(std::begin(g_Counts), std::end(g_Counts), 0);
    Files::SetFaultHook(Count);
    work();
    Files::SetFaultHook(nullptr);
    out << '"' << name << "\": {";
    const char* separator = "";
    for (size_t i = 0; i < std::size(kOperations); ++i)
        if (g_Counts[i] != 0)
        {
            out << separator << '"' << kOperations[i].Name << "\": " << g_Counts[i];
            separator = ", ";
        }
    out << '}';
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<char*> arguments(argv, argv + argc);
    SetDataRoot(TakeOption(arguments, "data", "bench-data"));
    std::ofstream file(TakeOption(arguments, "out", "counts.json"));
    OurStore store(DataDirectory("counts"));
    store.Fill(kFull);
    file << '{';
    Counted(file, "write", [&] { store.WriteAll(); });
    file << ", ";
    Counted(file, "change", [&] { store.ChangeOne(kFirstSet, RuleKey(50), MakeRule(kFirstSet, 50)); });
    file << ", ";
    Counted(file, "read", [&] { store.ReadAll(); });
    file << "}\n";
    return 0;
}
