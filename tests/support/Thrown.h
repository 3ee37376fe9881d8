// The support library's exceptions. Windows.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Exception.h"

/// The code of the exception that work throws by pointer out of KxComn_<source>.cpp; 0 when it throws none.
template <class Exception>
uint32_t Thrown(const std::string& source, const auto& work)
{
    try
    {
        work();
        return 0;
    }
    catch (Exception* e)
    {
        const std::unique_ptr<KxCommon::Exception::Base> owner(e);
        EXPECT_EQ(owner->Detail(), 0u);
        EXPECT_EQ(owner->Source(), "..\\..\\..\\Common\\srclib\\KxComn_" + source + ".cpp");
        return owner->Code();
    }
}
