// An environment variable set (or, given null, unset) for a scope, and put
// back as it was when the scope ends.
#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace zel::test {

struct ScopedEnv {
    std::string name;
    std::optional<std::string> saved;
    ScopedEnv(std::string n, const char *value) : name(std::move(n))
    {
        if (const char *old = std::getenv(name.c_str()))
            saved = old;
        apply(value);
    }
    ~ScopedEnv() { apply(saved ? saved->c_str() : nullptr); }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    // TZ is read once and cached: a change must be told to the C library.
    void apply(const char *value)
    {
        value ? ::setenv(name.c_str(), value, 1) : ::unsetenv(name.c_str());
        ::tzset();
    }
};

} // namespace zel::test
