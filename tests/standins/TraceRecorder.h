// The real trace on top of the stand-in library: what the code under test traces.
#pragma once

#include <gtest/gtest.h>

#include "common/trace/KxComn_DebugLog.h"
#include "tests/standins/TraceStandIn.h"
#include "tests/support/TempDir.h"

/// Records every level while it exists. One at a time.
class TraceRecorder
{
public:
    TraceRecorder() : m_Library(m_Folder.Path())
    {
        m_Library->HasConfig = true;
        m_Library->Enable = 1;
        m_Library->Level = 0xFFFFFFFF;
        const std::string folder = m_Folder.Path().string();
        EXPECT_TRUE(KxCommon::g_DebugLog.Initialize("Test", {KxCommon::Storage::kIniFile, folder.c_str(), ""}, 1));
    }
    ~TraceRecorder() { KxCommon::g_DebugLog.Uninitialize(); }
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;

    /// Returns tag and message of each line so far and clears them. Not while another thread may trace.
    std::vector<std::string> Take()
    {
        std::vector<std::string> lines;
        for (const auto& line : m_Library->Lines)
        {
            const size_t name = line.Text.find(L" <Test> ");
            const std::wstring wide =
                line.Text.substr(name - 3, 4) + line.Text.substr(name + 8, line.Text.rfind(L" - ") - name - 8);
            lines.push_back(std::filesystem::path(wide).string());
        }
        m_Library->Lines.clear();
        return lines;
    }

private:
    TempDir m_Folder;
    TraceStandIn m_Library;
};
