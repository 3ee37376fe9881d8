/*
 * KxPfwRule.hpp: KxPfwRul.dll from C++20. A thin layer over KxPfwRule.h, which documents every call: a Store that is
 * finalised when destroyed, results as values, and vectors and strings instead of buffers to fill.
 *
 *     kxrule::Store store;
 *     kxrule::Result result = store.open(L"C:\\ProgramData\\Firewall\\Rules");
 *     if (result)
 *         result = store.read();       // if this fails, change nothing: the next write lists only what was read
 *     if (result)
 *         result = store.addRule(1, 100, kxrule::access().tcp().from("10.0.0.0/8").port("80-90").accept());
 *     if (result)
 *         result = store.flush();      // on disk now; the destructor writes too, but cannot report a failure
 *     if (!result)
 *         return fail(result.name(), result.message()); // KXRULE_E_RULE_EXISTS, "the rule index is in use ..."
 *     if (const auto text = store.ruleText(1, 100))
 *         std::puts(text->c_str());
 *
 * Function names begin with a lower-case letter. Functions allocate only what they return, do not copy what the library
 * has written, and add no locks: what KxPfwRule.h says about threads applies. They throw nothing but std::bad_alloc; a
 * caller who prefers exceptions can throw std::system_error(result).
 */
#ifndef KXPFWRULE_HPP
#define KXPFWRULE_HPP

#include "KxPfwRuleBuilder.hpp" // first: it refuses anything older than C++20

#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

namespace kxrule
{

#define KXRULE_RESULTS(R)                                                                                              \
    R(KXRULE_OK, "success")                                                                                            \
    R(KXRULE_E_NULL_POINTER, "a required pointer is null, or memory ran out")                                          \
    R(KXRULE_E_NO_RULESET, "no rule set has that index, or the index is in use or out of range")                       \
    R(KXRULE_E_NO_RULE, "no rule has that index in the rule set")                                                      \
    R(KXRULE_E_TOO_MANY_RULESETS, "the store already holds 64 rule sets")                                              \
    R(KXRULE_E_TOO_MANY_RULES, "the rule set would hold more than 1024 rules")                                         \
    R(KXRULE_E_RULE_EXISTS, "the rule index is in use in the rule set")                                                \
    R(KXRULE_E_MACRO_TEXT, "a macro without items has no text")                                                        \
    R(KXRULE_E_RULE_TEXT, "a rule of this kind has no text")                                                           \
    R(KXRULE_E_FILE_OPEN, "a file could not be opened, or the library is not initialised")                             \
    R(KXRULE_E_FILE_READ, "a file could not be read, or memory ran out")                                               \
    R(KXRULE_E_FILE_WRITE, "a file could not be written, or memory ran out")                                           \
    R(KXRULE_E_RULESET_FORMAT, "a rule set file has another magic or version")                                         \
    R(KXRULE_E_MACRO_FORMAT, "the macro file has another magic or version")                                            \
    R(KXRULE_E_ALREADY_INITIALIZED, "the library is initialised already")                                              \
    R(KXRULE_E_MUTEX, "the library's named mutex could not be created, or memory ran out")                             \
    R(KXRULE_E_PORT_LIST, "a port list of an access rule is empty or blank")                                           \
    R(KXRULE_E_HASH_LIBRARY, "KxHash.dll or its function could not be loaded, or memory ran out")

/// A result code with its name, comparable with the codes of KxPfwRule.h. True if the call succeeded.
class [[nodiscard]] Result
{
public:
    constexpr Result(int32_t code = KXRULE_OK) noexcept : m_Code(code) {} // implicit: every call returns one

    constexpr explicit operator bool() const noexcept { return m_Code == KXRULE_OK; }
    constexpr int32_t code() const noexcept { return m_Code; }
    friend constexpr bool operator==(Result, Result) = default; // also result == KXRULE_E_MUTEX

    /// As in KxPfwRule.h, followed by a NUL. Empty for a status of the hash library (Store::updateHashes).
    constexpr std::string_view name() const noexcept { return text().first; }

    /// A readable sentence, followed by a NUL.
    constexpr std::string_view message() const noexcept { return text().second; }

private:
    constexpr std::pair<std::string_view, std::string_view> text() const noexcept
    {
#define KXRULE_TEXT(code, message)                                                                                     \
    case code:                                                                                                         \
        return {#code, message};
        switch (m_Code)
        {
            KXRULE_RESULTS(KXRULE_TEXT)
        default:
            return {"", "the hash library failed with a status of its own"};
        }
#undef KXRULE_TEXT
    }

    int32_t m_Code;
};
#undef KXRULE_RESULTS

/// For std::error_code and std::system_error, which take a Result as it is.
inline const std::error_category& category() noexcept
{
    class Category : public std::error_category
    {
        const char* name() const noexcept override { return "kxrule"; }
        std::string message(int code) const override
        {
            const Result result(code);
            return std::string(result.name()) + (result.name().empty() ? "" : ": ") + std::string(result.message());
        }
    };
    static const Category category;
    return category;
}

inline std::error_code make_error_code(Result result) noexcept
{
    return {result.code(), category()};
}

/// A value, or the error that says why there is none. What * and -> return is valid as long as the outcome; * moves out
/// of a temporary, and -> requires a named one, so that no range or text of a temporary dangles. Both require an
/// outcome with a value.
template <class T>
class [[nodiscard]] Outcome
{
public:
    Outcome() = default;
    Outcome(Result error, T value) : m_Error(error), m_Value(std::move(value)) {}

    bool has_value() const noexcept { return static_cast<bool>(m_Error); }
    Result error() const noexcept { return m_Error; } ///< KXRULE_OK if there is a value

    /// Not for a bool, whose own value could be mistaken for it: has_value() and value_or(false) are unambiguous.
    explicit operator bool() const noexcept requires(!std::is_same_v<T, bool>) { return has_value(); }

    T& operator*() & noexcept { return m_Value; }
    const T& operator*() const& noexcept { return m_Value; }
    T operator*() && noexcept { return std::move(m_Value); }
    T* operator->() & noexcept { return &m_Value; }
    const T* operator->() const& noexcept { return &m_Value; }
    const T* operator->() const&& = delete;

    T value_or(T other) const& { return has_value() ? m_Value : std::move(other); }
    T value_or(T other) && { return has_value() ? std::move(m_Value) : std::move(other); }

private:
    friend class Store;

    Result m_Error;
    T m_Value = {};
};

/// A text in a packed record, up to its terminator or the end of its field: field(set, &PFW_RULESET::wszName),
/// field(rule.Access, &PFW_ACCESS::szExtText). (A pointer or reference to such a field would be misaligned.)
template <class Record, class Unit, size_t Units>
std::basic_string<Unit> field(const Record& record, Unit (Record::*member)[Units])
{
    std::basic_string<Unit> text(Units, Unit());
    std::memcpy(text.data(), &(record.*member), Units * sizeof(Unit));
    text.resize((std::min)(text.find(Unit()), Units));
    return text;
}

inline std::basic_string<KXWCHAR> description(const PFW_RULE& rule)
{
    return field(rule, &PFW_RULE::wszDescription);
}

/// The path of the application that an access rule of either layout is bound to; empty for all others.
inline std::basic_string<KXWCHAR> application(const PFW_RULE& rule)
{
    return rule.dwKind == KXRULE_KIND_ACCESS    ? field(rule.Access, &PFW_ACCESS::wszAppName)
           : rule.dwKind == KXRULE_KIND_ACCESS2 ? field(rule.Access2, &PFW_ACCESS2::wszAppName)
                                                : std::basic_string<KXWCHAR>();
}

/// A rule set record followed by its rules, in one block. Without one (default-constructed or moved-from) record() is
/// null, there are no rules, and index and name must not be called.
class RuleSet
{
public:
    RuleSet() = default;

    /// A set to be filled: rules without a kind, indexes all 0.
    RuleSet(const RuleSetName& name, size_t ruleCount)
        : m_Bytes(std::make_unique<unsigned char[]>(KXRULE_RULESET_BYTES(ruleCount))), m_Room(ruleCount)
    {
        detail::fill(&record()->wszName, sizeof record()->wszName, name.view());
        record()->nRuleCount = static_cast<int32_t>(ruleCount);
    }

    PFW_RULESET* record() noexcept { return reinterpret_cast<PFW_RULESET*>(m_Bytes.get()); }
    const PFW_RULESET* record() const noexcept { return reinterpret_cast<const PFW_RULESET*>(m_Bytes.get()); }
    uint16_t index() const noexcept { return record()->wRuleSetIndex; }
    std::basic_string<KXWCHAR> name() const { return field(*record(), &PFW_RULESET::wszName); }

    std::span<PFW_RULE> rules() & noexcept { return {first(), count()}; }
    std::span<const PFW_RULE> rules() const& noexcept { return {first(), count()}; }
    void rules() const&& = delete; // they would vanish with the temporary

private:
    friend class Store;

    /// Memory that the library is about to fill.
    explicit RuleSet(size_t room)
        : m_Bytes(std::make_unique_for_overwrite<unsigned char[]>(KXRULE_RULESET_BYTES(room))), m_Room(room)
    {
    }

    PFW_RULE* first() const noexcept { return m_Bytes ? KXRULE_RULES(m_Bytes.get()) : nullptr; }
    size_t count() const noexcept
    {
        const int32_t count = m_Bytes ? record()->nRuleCount : 0;
        return count > 0 ? (std::min)(static_cast<size_t>(count), m_Room) : 0;
    }

    std::unique_ptr<unsigned char[]> m_Bytes;
    size_t m_Room = 0;
};

/// All macros of the store, one record right after the other: for (const PFW_MACRO& macro : store.macros())
class Macros
{
public:
    class Iterator
    {
    public:
        using value_type = PFW_MACRO; // the head; the items follow the original, not a copy
        using reference = const PFW_MACRO&;
        using pointer = const PFW_MACRO*;
        using difference_type = std::ptrdiff_t;
        using iterator_category = std::forward_iterator_tag;

        Iterator() = default;
        explicit Iterator(const unsigned char* at) noexcept : m_At(at) {}
        reference operator*() const noexcept { return *operator->(); }
        pointer operator->() const noexcept { return reinterpret_cast<pointer>(m_At); }
        Iterator operator++(int) noexcept { return std::exchange(*this, std::next(*this)); }
        Iterator& operator++() noexcept
        {
            m_At += KXRULE_MACRO_BYTES((std::max<int32_t>)((**this).nItemCount, 0));
            return *this;
        }
        bool operator==(const Iterator&) const = default;

    private:
        const unsigned char* m_At = nullptr;
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

/// The result of a call that returns a number or a code.
inline Outcome<int32_t> number(int32_t value) noexcept
{
    return {(std::min)(value, KXRULE_OK), (std::max)(value, 0)};
}

/// The text returned by a call of the form (buffer, size) -> length. Most lines fit the first buffer and are rendered
/// once.
template <class Call>
Outcome<std::string> text(const Call& call)
{
    char line[512];
    std::string text;
    int32_t length = call(line, static_cast<int32_t>(sizeof line));
    if (length >= 0 && static_cast<size_t>(length) <= sizeof line)
        text.assign(line, static_cast<size_t>(length));
    // Another thread may store a longer rule there between two calls.
    while (length > 0 && static_cast<size_t>(length) > text.size())
    {
        text.resize(static_cast<size_t>(length));
        length = call(text.data(), length);
    }
    text.resize(static_cast<size_t>(*number(length)));
    return {number(length).error(), std::move(text)};
}

/// The list returned by a call of the form (buffer, capacity) -> full count.
template <class Call>
std::vector<uint16_t> list(const Call& call)
{
    std::vector<uint16_t> list(KXRULE_MAX_RULESETS);
    while (true) // between two calls another thread may lengthen the list
    {
        const auto count = static_cast<size_t>(*number(call(list.data(), static_cast<int32_t>(list.size()))));
        const bool complete = count <= list.size();
        list.resize(count);
        if (complete)
            return list;
    }
}

#if defined(_WIN32)
extern "C" __declspec(dllimport) int __stdcall MultiByteToWideChar(unsigned int codePage, unsigned long flags,
                                                                   const char* from, int fromSize, wchar_t* to,
                                                                   int toSize);
extern "C" __declspec(dllimport) int __stdcall WideCharToMultiByte(unsigned int codePage, unsigned long flags,
                                                                   const wchar_t* from, int fromSize, char* to,
                                                                   int toSize, const char* unmapped, int* anyUnmapped);

/// The text in the active code page; nothing if the code page cannot express it.
inline std::optional<std::string> narrow(std::wstring_view text)
{
    const int size = static_cast<int>(text.size());
    std::string bytes(3 * text.size() + 1, 0); // no code page needs more
    const int used = WideCharToMultiByte(0, 0, text.data(), size, bytes.data(), 3 * size, nullptr, nullptr);
    bytes.resize(static_cast<size_t>(used));
    std::wstring back(bytes.size() + 1, 0);
    back.resize(static_cast<size_t>(MultiByteToWideChar(0, 0, bytes.data(), used, back.data(), used)));
    return back == text ? std::optional(std::move(bytes)) : std::nullopt;
}
#endif

} // namespace detail

/// A record, which need not be stored, as a line of text.
inline Outcome<std::string> text(const PFW_RULE& rule)
{
    return detail::text([&](char* text, int32_t size) { return kxRuleGetRuleString2(&rule, text, size); });
}

inline Outcome<std::string> text(const PFW_MACRO& macro)
{
    return detail::text([&](char* text, int32_t size) { return kxRuleGetMacroString(&macro, text, size); });
}

/// The library, initialised from open until close or destruction. There is one store in a process.
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

    /// A null rule directory means the DLL's own, a null master file KxRulMas.dat. Leaves nothing running if it fails.
    Result open(const char* rulePath, const char* masterFileName = nullptr) noexcept
    {
        const Result result = kxRuleInitialize(rulePath, masterFileName);
        if (result == KXRULE_E_MUTEX)
            kxRuleFinalize(); // stops the trace, which is still on
        m_Open = m_Open || result;
        return result;
    }
    Result open(std::nullptr_t = nullptr, const char* masterFileName = nullptr) noexcept
    {
        return open(static_cast<const char*>(nullptr), masterFileName);
    }
#if defined(_WIN32)
    /// The same for a path in UTF-16. KXRULE_E_FILE_OPEN when the active code page cannot express it.
    Result open(std::wstring_view rulePath, const char* masterFileName = nullptr)
    {
        const auto narrow = detail::narrow(rulePath);
        return narrow ? open(narrow->c_str(), masterFileName) : Result(KXRULE_E_FILE_OPEN);
    }
#endif

    /// Writes changes; call flush() first to find out whether that succeeds.
    void close() noexcept
    {
        if (std::exchange(m_Open, false))
            kxRuleFinalize();
    }

    Result read() noexcept
    {
        return kxRuleRead();
    }
    Result write() noexcept
    {
        return kxRuleWrite();
    }
    Result flush() noexcept
    {
        return kxRuleFlush();
    }

    // Rule sets.
    std::vector<uint16_t> ruleSets() const
    {
        return detail::list(kxRuleGetRuleSetIndex);
    }
    std::vector<uint16_t> activeRuleSets() const
    {
        return detail::list(kxRuleGetActiveRuleSet);
    }
    Result setActiveRuleSets(std::span<const uint16_t> indexes) noexcept
    {
        return kxRuleSetActiveRuleSet(indexes.data(), static_cast<int32_t>(indexes.size()));
    }

    /// The set's own index becomes the one that the library assigned; index 0 chooses a free one.
    Result addRuleSet(RuleSet& ruleSet, uint16_t index = 0) noexcept
    {
        return kxRuleAddRuleSet(index, ruleSet.record());
    }
    Result deleteRuleSet(uint16_t index) noexcept
    {
        return index == 0 ? Result(KXRULE_E_NO_RULESET) : Result(kxRuleDeleteRuleSet(index));
    }
    Result deleteAllRuleSets() noexcept
    {
        return kxRuleDeleteRuleSet(0);
    }

    Outcome<int32_t> ruleCount(uint16_t ruleSet) const noexcept
    {
        return detail::number(kxRuleGetRuleSet(ruleSet, nullptr, 0));
    }
    Outcome<RuleSet> ruleSet(uint16_t index) const
    {
        RuleSet set;
        int32_t count = kxRuleGetRuleSet(index, nullptr, 0);
        while (count >= 0 && (!set.m_Bytes || static_cast<size_t>(count) > set.m_Room))
        {
            set = RuleSet(static_cast<size_t>(count));
            count = kxRuleGetRuleSet(index, set.record(), count);
        }
        if (count < 0)
            return {count, RuleSet()}; // it may have been deleted after it was counted
        return {KXRULE_OK, std::move(set)};
    }

    // Rules.
    Result addRule(uint16_t ruleSet, const PFW_RULE& rule) noexcept
    {
        return addRule(ruleSet, rule.wRuleIndex, rule);
    }
    Result addRule(uint16_t ruleSet, uint16_t index, const PFW_RULE& rule) noexcept
    {
        return kxRuleAddRule(ruleSet, index, &rule);
    }
    /// (Rule 0 can only be deleted together with all others.)
    Result deleteRule(uint16_t ruleSet, uint16_t index) noexcept
    {
        return index == 0 ? Result(KXRULE_E_NO_RULE) : Result(kxRuleDeleteRule(ruleSet, index));
    }
    Result deleteAllRules(uint16_t ruleSet) noexcept
    {
        return kxRuleDeleteRule(ruleSet, 0);
    }

    /// Into the caller's record, which saves look-ups in a loop the copying of a returned value.
    Result rule(uint16_t ruleSet, uint16_t index, PFW_RULE& rule) const noexcept
    {
        return kxRuleGetRule(ruleSet, index, &rule);
    }
    Outcome<PFW_RULE> rule(uint16_t ruleSet, uint16_t index) const noexcept
    {
        Outcome<PFW_RULE> rule;
        rule.m_Error = kxRuleGetRule(ruleSet, index, &rule.m_Value);
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
    /// isActive(1, 100).value_or(false) tests for an active rule. (A dwActive that equals one of the two codes counts
    /// as that code.)
    Outcome<bool> isActive(uint16_t ruleSet, uint16_t index) const noexcept
    {
        const int32_t value = kxRuleIsRuleActive(ruleSet, index);
        const bool missing = value == KXRULE_E_NO_RULESET || value == KXRULE_E_NO_RULE;
        return {missing ? Result(value) : Result(), value != 0 && !missing};
    }

    // Macros.
    Result addMacro(const PFW_MACRO& macro) noexcept
    {
        return kxRuleAddMacro(&macro);
    }
    Result deleteAllMacros() noexcept
    {
        return kxRuleDeleteMacro();
    }
    int32_t macroCount() const noexcept
    {
        return kxRuleGetMacroCount();
    }
    Macros macros() const
    {
        Macros macros;
        int32_t needed = kxRuleGetMacro(nullptr, 0);
        while (needed > static_cast<int32_t>(macros.m_Bytes.size()))
        {
            if (needed == INT32_MAX) // or more: the library copies less than that
                throw std::bad_alloc();
            // Zeroed, since the library leaves each record's first word as it is.
            macros.m_Bytes.assign(static_cast<size_t>(needed), 0);
            needed = kxRuleGetMacro(macros.m_Bytes.data(), needed);
        }
        macros.m_Bytes.resize(static_cast<size_t>(needed));
        return macros;
    }

    /// Refreshes application hashes: of the rules for one path, or of all (null). hash is null or 20 bytes; see
    /// kxRuleUpdateHashValue. changed(uint32_t ruleSet, const PFW_RULE& rule) is called for each rule that is given
    /// one; it must not call the library. An exception thrown by it does not stop the refresh, and is rethrown at the
    /// end.
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

template <>
struct std::is_error_code_enum<kxrule::Result> : std::true_type
{
};

#endif // KXPFWRULE_HPP
