/// @file
/// A copy of a process environment that can be edited and handed to execve as envp.
#pragma once

#include <ksexport.h>
#include <ksutils/string_view.h>

#include <optional>
#include <string>
#include <vector>

namespace ks {

/// An editable copy of an environment, usable as envp.
class KS_EXPORT Environ {
public:
    /// A copy of the current process environment.
    Environ();
    /// A copy of the given NULL-terminated block.
    explicit Environ(char* const* envp);

    /// The value of `name`, or nothing when it is not set.
    std::optional<std::string> get(ks::string_view name) const;
    /// Adds or replaces NAME; false (E_INVAL) when the name is empty or contains '='.
    bool set(ks::string_view name, ks::string_view value);
    /// Removes `name` if it is set.
    void unset(ks::string_view name);

    /// NULL-terminated "NAME=value" array, valid until the next change of this object.
    char* const* envp() const noexcept { return pointers_.data(); }
    /// The number of variables.
    size_t size() const noexcept { return entries_.size(); }
    /// The "NAME=value" entries.
    const std::vector<std::string>& entries() const noexcept { return entries_; }

private:
    std::vector<std::string>::iterator find(ks::string_view name);
    std::vector<std::string>::const_iterator find(ks::string_view name) const;
    void rebuild();

    std::vector<std::string> entries_;
    std::vector<char*> pointers_;
};

}  // namespace ks
