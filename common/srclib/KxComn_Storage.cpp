// What a storage does that does not support an operation, and the choice between the storages.
#include "common/srclib/KxComn_Storage.h"

#include "common/srclib/KxComn_IniFile.h"
#include "common/srclib/KxComn_Registry.h"

namespace KxCommon::Storage
{

bool Base::OpenForReading(const Key&, const char*, uint32_t)
{
    return false;
}
bool Base::OpenForWriting(const Key&, const char*, uint32_t)
{
    return false;
}
bool Base::OpenForDeleting(const Key&, const char*, uint32_t)
{
    return false;
}
bool Base::OpenForEnumerating(const Key&, const char*, uint32_t)
{
    return false;
}
bool Base::Close()
{
    return false;
}
bool Base::Flush()
{
    return false;
}
bool Base::Reserved7()
{
    return false;
}
uint32_t Base::ReadBinary(const char*, void*, uint32_t)
{
    return 0;
}
uint32_t Base::Reserved9(const char*)
{
    return 0;
}
std::string Base::ReadString(const char*, const char*)
{
    return {};
}
bool Base::Reserved11(const char*)
{
    return false;
}
uint32_t Base::ReadNumber(const char*, uint32_t)
{
    return 0;
}
bool Base::WriteBinary(const char*, const void*, uint32_t)
{
    return false;
}
bool Base::WriteString(const char*, const char*)
{
    return false;
}
bool Base::WriteNumber(const char*, uint32_t)
{
    return false;
}
bool Base::EnumerateKeys(uint32_t, std::string&)
{
    return false;
}
bool Base::EnumerateValues(uint32_t, std::string&)
{
    return false;
}

std::unique_ptr<Base> Create(uint32_t kind)
{
    switch (kind)
    {
    case kRegistry:
    case kRegistryAlso:
        return std::make_unique<Registry>();
    case kIniFile:
        return std::make_unique<IniFile>();
    default:
        return nullptr;
    }
}

} // namespace KxCommon::Storage
