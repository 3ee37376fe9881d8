// The store in the simplest form that gives the same files: what the library is measured against to show what its
// care is worth. Each field: key schedule, an allocation, table cipher, two small calls. Each file: no flush, copied
// over the real one, deleted. Tree maps.
#pragma once

#include <map>
#include <string>

#include "api/include/KxPfwRule.h"
#include "bench/Bench.h"

namespace Bench
{

class FirstForm
{
public:
    explicit FirstForm(std::string directory) : m_Directory(std::move(directory)) {}

    void Fill(const Shape& shape);
    void WriteAll();
    void ReadAll();

    struct Rule
    {
        uint64_t Head[2];
        PFW_RULE Record;
    };
    struct Set
    {
        std::string FileName;
        std::map<uint16_t, Rule> Rules;
    };
    using Sets = std::map<uint16_t, Set>;
    [[nodiscard]] const Sets& All() const noexcept { return m_Sets; }

private:
    template <class Encode>
    void WriteFileBy(const char* prefix, const std::string& name, Encode encode);

    std::string m_Directory;
    Sets m_Sets;
};

} // namespace Bench
