// Counts the library's file system calls and makes chosen ones fail. Windows.
#pragma once

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "persistence/Files.h"

/// While it exists. One at a time, one thread.
class FileFaults
{
public:
    using Operation = Files::Operation;

    FileFaults()
    {
        s_Current = this;
        Files::SetFaultHook([](Operation operation) { return s_Current->Called(operation); });
    }
    ~FileFaults() { Files::SetFaultHook(nullptr); }
    FileFaults(const FileFaults&) = delete;
    FileFaults& operator=(const FileFaults&) = delete;

    /// Of the calls of each of these operations from now on, those numbered first to last fail with error.
    void Fail(std::set<Operation> operations, DWORD error, int first = 1, int last = 1 << 30)
    {
        Calls.clear();
        m_Operations = std::move(operations);
        m_Error = error;
        m_First = first;
        m_Last = last;
    }
    void Fail(Operation operation, DWORD error, int first = 1, int last = 1 << 30)
    {
        Fail(std::set<Operation>{operation}, error, first, last);
    }
    [[nodiscard]] int Count(Operation operation) const
    {
        return static_cast<int>(std::count(Calls.begin(), Calls.end(), operation));
    }

    std::vector<Operation> Calls; // in order, since Fail

private:
    DWORD Called(Operation operation)
    {
        Calls.push_back(operation);
        const int number = Count(operation);
        return m_Operations.count(operation) != 0 && number >= m_First && number <= m_Last ? m_Error : ERROR_SUCCESS;
    }

    inline static FileFaults* s_Current = nullptr;
    std::set<Operation> m_Operations;
    DWORD m_Error = ERROR_SUCCESS;
    int m_First = 0;
    int m_Last = 0;
};
