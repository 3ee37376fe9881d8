// How long and with which random numbers a campaign runs. scripts/torture.sh sets both; without it a test takes its
// short form. The seed is printed, and the same seed repeats the run.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

class Campaign
{
public:
    explicit Campaign(const char* name) : m_Name(name), m_Seed(Number("KX_TORTURE_SEED", 1)), m_Random(m_Seed) {}
    /// torture.py reads this line.
    ~Campaign()
    {
        const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
        std::printf("campaign %s: %llu tries, seed %u, %d lost\n", m_Name, static_cast<unsigned long long>(m_Tries),
                    m_Seed, test->result()->total_part_count());
    }
    Campaign(const Campaign&) = delete;
    Campaign& operator=(const Campaign&) = delete;

    /// 0 is the short form: a fixed number of tries instead of a time.
    [[nodiscard]] static unsigned Seconds() { return Number("KX_TORTURE_SECONDS", 0); }
    /// Counts a try; false if the time, or in the short form the number of tries, is used up.
    [[nodiscard]] bool Next(uint64_t triesInShortForm)
    {
        const bool isOver = Seconds() == 0 ? m_Tries >= triesInShortForm : IsTimeUp();
        m_Tries += isOver ? 0 : 1;
        return !isOver;
    }
    /// Counts tries of a campaign that decides their number itself.
    void Count(uint64_t tries) { m_Tries += tries; }
    /// Whether the time is used up; always in the short form.
    [[nodiscard]] bool IsTimeUp() const
    {
        return std::chrono::steady_clock::now() - m_Start > std::chrono::seconds(Seconds());
    }
    /// 0 to below - 1.
    [[nodiscard]] uint32_t Random(uint32_t below) { return static_cast<uint32_t>(m_Random() % below); }

private:
    static unsigned Number(const char* name, unsigned otherwise)
    {
        const char* const text = std::getenv(name);
        return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
    }

    const char* m_Name;
    unsigned m_Seed;
    std::mt19937 m_Random;
    uint64_t m_Tries = 0;
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};
