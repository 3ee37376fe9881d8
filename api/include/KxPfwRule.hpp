/*
 * KxPfwRule.hpp: KxPfwRul.dll from C++20. A thin layer over KxPfwRule.h, which documents every call: a Store that is
 * finalised when it goes, results as values, the calls that fill a buffer as vectors and strings.
 *
 *     kxrule::Store store;
 *     if (kxrule::Result result = store.open("C:\\ProgramData\\Firewall\\Rules"); !result)
 *         return fail(result.name());                                  // "KXRULE_E_MUTEX"
 *     store.read();
 *     store.addRule(1, 100, kxrule::access().tcp().from("10.0.0.0/8").port("80-90").accept());
 *     if (const auto text = store.ruleText(1, 100))
 *         std::puts(text->c_str());
 *
 * Functions are written as in the standard library, in small letters. They allocate what they return and nothing
 * else, copy nothing that the library has written, and add no lock: what KxPfwRule.h says of threads holds. They throw
 * std::bad_alloc and nothing of their own.
 */
#ifndef KXPFWRULE_HPP
#define KXPFWRULE_HPP

#include <exception>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <utility>

#include "KxPfwRuleBuilder.hpp"

namespace kxrule
{

/// A result code that knows its name. True when the call succeeded.
class [[nodiscard]] Result
{
public:
    constexpr Result(int32_t code = KXRULE_OK) noexcept : m_Code(code) {} // implicit: every call returns one

    constexpr explicit operator bool() const noexcept { return m_Code == KXRULE_OK; }
    constexpr int32_t code() const noexcept { return m_Code; }

    /// As in KxPfwRule.h, with a NUL behind it. Empty for a status of the hash library (Store::updateHashes).
    constexpr std::string_view name() const noexcept
    {
#define KXRULE_NAME(code)                                                                                              \
    case code:                                                                                                         \
        return #code;
        switch (m_Code)
        {
            KXRULE_NAME(KXRULE_OK)
            KXRULE_NAME(KXRULE_E_NULL_POINTER)
            KXRULE_NAME(KXRULE_E_NO_RULESET)
            KXRULE_NAME(KXRULE_E_NO_RULE)
            KXRULE_NAME(KXRULE_E_TOO_MANY_RULESETS)
            KXRULE_NAME(KXRULE_E_TOO_MANY_RULES)
            KXRULE_NAME(KXRULE_E_RULE_EXISTS)
            KXRULE_NAME(KXRULE_E_MACRO_TEXT)
            KXRULE_NAME(KXRULE_E_RULE_TEXT)
            KXRULE_NAME(KXRULE_E_FILE_OPEN)
            KXRULE_NAME(KXRULE_E_FILE_READ)
            KXRULE_NAME(KXRULE_E_FILE_WRITE)
            KXRULE_NAME(KXRULE_E_RULESET_FORMAT)
            KXRULE_NAME(KXRULE_E_MACRO_FORMAT)
            KXRULE_NAME(KXRULE_E_ALREADY_INITIALIZED)
            KXRULE_NAME(KXRULE_E_MUTEX)
            KXRULE_NAME(KXRULE_E_PORT_LIST)
            KXRULE_NAME(KXRULE_E_HASH_LIBRARY)
        default:
            return "";
        }
#undef KXRULE_NAME
    }

private:
    int32_t m_Code;
};

/// A value, or the result that says why there is none. What * and -> give lives as long as the outcome does; * moves out
/// of a temporary one, and -> wants one with a name, so that no range or text of a temporary is left behind.
template <class T>
struct [[nodiscard]] Outcome
{
    Result result;
    T value = {}; // meaningful when the result is true

    explicit operator bool() const noexcept { return static_cast<bool>(result); }
    T& operator*() & noexcept { return value; }
    const T& operator*() const& noexcept { return value; }
    T operator*() && noexcept { return std::move(value); }
    T* operator->() & noexcept { return &value; }
    const T* operator->() const& noexcept { return &value; }
    const T* operator->() const&& = delete;
};

/// A rule set record with its rules behind it, in one block. Without one (as made by default, or moved away) record() is
/// null, there are no rules, and index and name must not be asked for.
class RuleSet
{
public:
    RuleSet() = default;

    /// A set to be filled: rules without a kind, indexes all 0.
    RuleSet(WideView name, size_t ruleCount)
        : m_Bytes(std::make_unique<unsigned char[]>(KXRULE_RULESET_BYTES(ruleCount))), m_Room(ruleCount)
    {
        detail::fill(&record()->wszName, sizeof record()->wszName, name);
        record()->nRuleCount = static_cast<int32_t>(ruleCount);
    }

    PFW_RULESET* record() noexcept { return reinterpret_cast<PFW_RULESET*>(m_Bytes.get()); }
    const PFW_RULESET* record() const noexcept { return reinterpret_cast<const PFW_RULESET*>(m_Bytes.get()); }
    uint16_t index() const noexcept { return record()->wRuleSetIndex; }
    std::basic_string<KXWCHAR> name() const
    {
        std::basic_string<KXWCHAR> text(KXRULE_RULESET_NAME_UNITS, 0);
        std::memcpy(text.data(), &record()->wszName, sizeof record()->wszName);
        text.resize(std::min(text.find(KXWCHAR(0)), text.size()));
        return text;
    }

    std::span<PFW_RULE> rules() & noexcept { return {first(), count()}; }
    std::span<const PFW_RULE> rules() const& noexcept { return {first(), count()}; }
    void rules() const&& = delete; // they would go with the temporary

private:
    friend class Store;

    /// Room that the library is about to fill.
    explicit RuleSet(size_t room)
        : m_Bytes(std::make_unique_for_overwrite<unsigned char[]>(KXRULE_RULESET_BYTES(room))), m_Room(room)
    {
    }

    PFW_RULE* first() const noexcept { return m_Bytes ? KXRULE_RULES(m_Bytes.get()) : nullptr; }
    size_t count() const noexcept
    {
        const int32_t count = m_Bytes ? record()->nRuleCount : 0;
        return count > 0 ? std::min(static_cast<size_t>(count), m_Room) : 0;
    }

    std::unique_ptr<unsigned char[]> m_Bytes;
    size_t m_Room = 0;
};

/// All macros of the store, one record right behind the other: for (const PFW_MACRO& macro : store.macros())
class Macros
{
public:
    class Iterator
    {
    public:
        explicit Iterator(const unsigned char* at) noexcept : m_At(at) {}
        const PFW_MACRO& operator*() const noexcept { return *reinterpret_cast<const PFW_MACRO*>(m_At); }
        Iterator& operator++() noexcept
        {
            m_At += KXRULE_MACRO_BYTES(std::max<int32_t>((**this).nItemCount, 0));
            return *this;
        }
        bool operator==(const Iterator&) const = default;

    private:
        const unsigned char* m_At;
    };

    Iterator begin() const noexcept { return Iterator(m_Bytes.data()); }
    Iterator end() const noexcept { return Iterator(m_Bytes.data() + m_Bytes.size()); }

private:
    friend class Store;

    std::vector<unsigned char> m_Bytes;
};

inline std::span<const MACRO_ITEM> items(const PFW_MACRO& macro) noexcept
{
    const int32_t count = macro.nItemCount;
    return {KXRULE_MACRO_ITEMS(&macro), count > 0 ? static_cast<size_t>(count) : 0};
}

namespace detail
{

/// What a call returned that gives a number or a code.
constexpr Outcome<int32_t> number(int32_t value) noexcept
{
    return {std::min(value, KXRULE_OK), std::max(value, 0)};
}

/// The text of a call of the form (buffer, size) -> length. Most lines fit the first buffer and are rendered once.
template <class Call>
Outcome<std::string> text(const Call& call)
{
    char line[512];
    Outcome<std::string> text;
    int32_t length = call(line, static_cast<int32_t>(sizeof line));
    if (length >= 0 && static_cast<size_t>(length) <= sizeof line)
        text.value.assign(line, static_cast<size_t>(length));
    // Between two calls another thread may put a longer rule in the place.
    while (length > 0 && static_cast<size_t>(length) > text.value.size())
    {
        text.value.resize(static_cast<size_t>(length));
        length = call(text.value.data(), length);
    }
    text.result = number(length).result;
    text.value.resize(static_cast<size_t>(number(length).value));
    return text;
}

/// The list of a call of the form (buffer, room) -> full count.
template <class Call>
std::vector<uint16_t> list(const Call& call)
{
    std::vector<uint16_t> list(KXRULE_MAX_RULESETS);
    while (true) // between two calls another thread may lengthen the list
    {
        const auto count = static_cast<size_t>(number(call(list.data(), static_cast<int32_t>(list.size()))).value);
        const bool complete = count <= list.size();
        list.resize(count);
        if (complete)
            return list;
    }
}

} // namespace detail

/// A line of text for a record that need not be stored.
inline Outcome<std::string> text(const PFW_RULE& rule)
{
    return detail::text([&](char* text, int32_t size) { return kxRuleGetRuleString2(&rule, text, size); });
}

inline Outcome<std::string> text(const PFW_MACRO& macro)
{
    return detail::text([&](char* text, int32_t size) { return kxRuleGetMacroString(&macro, text, size); });
}

/// The library, initialised from open until close or the end of the object. There is one store in a process.
class Store
{
public:
    Store() = default;
    Store(Store&& other) noexcept : m_Open(std::exchange(other.m_Open, false)) {}
    Store& operator=(Store&& other) noexcept
    {
        if (this != &other)
        {
            close();
            m_Open = std::exchange(other.m_Open, false);
        }
        return *this;
    }
    ~Store() { close(); }

    /// Null for the rule directory: the DLL's own; for the master file: KxRulMas.dat.
    Result open(const char* rulePath = nullptr, const char* masterFileName = nullptr) noexcept
    {
        const Result result = kxRuleInitialize(rulePath, masterFileName);
        m_Open = m_Open || result;
        return result;
    }

    /// Writes what changed; flush() before it tells whether that works.
    void close() noexcept
    {
        if (std::exchange(m_Open, false))
            kxRuleFinalize();
    }

    Result read() noexcept { return kxRuleRead(); }
    Result write() noexcept { return kxRuleWrite(); }
    Result flush() noexcept { return kxRuleFlush(); }

    // Rule sets.
    std::vector<uint16_t> ruleSets() const { return detail::list(kxRuleGetRuleSetIndex); }
    std::vector<uint16_t> activeRuleSets() const { return detail::list(kxRuleGetActiveRuleSet); }
    Result setActiveRuleSets(std::span<const uint16_t> indexes) noexcept
    {
        return kxRuleSetActiveRuleSet(indexes.data(), static_cast<int32_t>(indexes.size()));
    }

    /// The set's own index is what the library gave it; index 0 has a free one chosen.
    Result addRuleSet(RuleSet& ruleSet, uint16_t index = 0) noexcept
    {
        return kxRuleAddRuleSet(index, ruleSet.record());
    }
    Result deleteRuleSet(uint16_t index) noexcept
    {
        return index == 0 ? Result(KXRULE_E_NO_RULESET) : Result(kxRuleDeleteRuleSet(index));
    }
    Result deleteAllRuleSets() noexcept { return kxRuleDeleteRuleSet(0); }

    Outcome<int32_t> ruleCount(uint16_t ruleSet) const noexcept
    {
        return detail::number(kxRuleGetRuleSet(ruleSet, nullptr, 0));
    }
    Outcome<RuleSet> ruleSet(uint16_t index) const
    {
        Outcome<RuleSet> set;
        int32_t count = kxRuleGetRuleSet(index, nullptr, 0);
        while (count >= 0 && (!set.value.m_Bytes || static_cast<size_t>(count) > set.value.m_Room))
        {
            set.value = RuleSet(static_cast<size_t>(count));
            count = kxRuleGetRuleSet(index, set.value.record(), count);
        }
        set.result = detail::number(count).result;
        if (!set)
            set.value = RuleSet(); // it may have gone after it was counted
        return set;
    }

    // Rules.
    Result addRule(uint16_t ruleSet, const PFW_RULE& rule) noexcept { return addRule(ruleSet, rule.wRuleIndex, rule); }
    Result addRule(uint16_t ruleSet, uint16_t index, const PFW_RULE& rule) noexcept
    {
        return kxRuleAddRule(ruleSet, index, &rule);
    }
    /// (Rule 0 can only go with all others.)
    Result deleteRule(uint16_t ruleSet, uint16_t index) noexcept
    {
        return index == 0 ? Result(KXRULE_E_NO_RULE) : Result(kxRuleDeleteRule(ruleSet, index));
    }
    Result deleteAllRules(uint16_t ruleSet) noexcept { return kxRuleDeleteRule(ruleSet, 0); }

    /// Into the caller's record, which spares lookups in a loop the copy that a returned value may cost.
    Result rule(uint16_t ruleSet, uint16_t index, PFW_RULE& rule) const noexcept
    {
        return kxRuleGetRule(ruleSet, index, &rule);
    }
    Outcome<PFW_RULE> rule(uint16_t ruleSet, uint16_t index) const noexcept
    {
        Outcome<PFW_RULE> rule;
        rule.result = kxRuleGetRule(ruleSet, index, &rule.value);
        return rule;
    }
    Outcome<std::string> ruleText(uint16_t ruleSet, uint16_t index) const
    {
        return detail::text([=](char* text, int32_t size) { return kxRuleGetRuleString(ruleSet, index, text, size); });
    }
    Outcome<int32_t> firstRule(uint16_t ruleSet) const noexcept
    {
        return detail::number(kxRuleGetRuleTopIndex(ruleSet));
    }
    Outcome<int32_t> lastRule(uint16_t ruleSet) const noexcept
    {
        return detail::number(kxRuleGetRuleBottomIndex(ruleSet));
    }
    /// (A dwActive that equals one of the two codes counts as that code.)
    Outcome<bool> isActive(uint16_t ruleSet, uint16_t index) const noexcept
    {
        const int32_t value = kxRuleIsRuleActive(ruleSet, index);
        const bool missing = value == KXRULE_E_NO_RULESET || value == KXRULE_E_NO_RULE;
        return {missing ? Result(value) : Result(), value != 0 && !missing};
    }

    // Macros.
    Result addMacro(const PFW_MACRO& macro) noexcept { return kxRuleAddMacro(&macro); }
    Result deleteAllMacros() noexcept { return kxRuleDeleteMacro(); }
    int32_t macroCount() const noexcept { return kxRuleGetMacroCount(); }
    Macros macros() const
    {
        Macros macros;
        int32_t needed = kxRuleGetMacro(nullptr, 0);
        while (needed > static_cast<int32_t>(macros.m_Bytes.size()))
        {
            if (needed == INT32_MAX) // or more: the library hands out less than that
                throw std::bad_alloc();
            // Zeroed, since the library leaves each record's first word as it is.
            macros.m_Bytes.assign(static_cast<size_t>(needed), 0);
            needed = kxRuleGetMacro(macros.m_Bytes.data(), needed);
        }
        macros.m_Bytes.resize(static_cast<size_t>(needed));
        return macros;
    }

    /// Refreshes application hashes: of the rules for one path, or of all (null). hash is null or 20 bytes; what they do
    /// stands at kxRuleUpdateHashValue. changed(uint32_t ruleSet, const PFW_RULE& rule) is called for each rule that got
    /// one; it must not call the library. What it throws ends no refresh: it is thrown on when all is done.
    template <class Changed>
    Result updateHashes(const KXWCHAR* applicationPath, const uint8_t* hash, Changed&& changed)
    {
        struct Context
        {
            Changed& changed;
            std::exception_ptr thrown;
        } context = {changed, nullptr};
        const auto forward = [](uint32_t ruleSet, const PFW_RULE* rule, void* to) noexcept -> int32_t
        {
            Context& caller = *static_cast<Context*>(to);
            try
            {
                if (!caller.thrown)
                    caller.changed(ruleSet, *rule);
            }
            catch (...)
            {
                caller.thrown = std::current_exception();
            }
            return 0;
        };
        const Result result = kxRuleUpdateHashValue(applicationPath, hash, forward, &context);
        if (context.thrown)
            std::rethrow_exception(context.thrown);
        return result;
    }
    Result updateHashes(const KXWCHAR* applicationPath = nullptr, const uint8_t* hash = nullptr) noexcept
    {
        return kxRuleUpdateHashValue(applicationPath, hash, nullptr, nullptr);
    }

private:
    bool m_Open = false;
};

} // namespace kxrule

#endif // KXPFWRULE_HPP
