// The environment block: a private copy of "NAME=value" entries with an envp view.
#include <ksutils/environ.h>
#include <ksutils/error.h>

#include <unistd.h>

#include <algorithm>

extern char** environ;

namespace ks {

namespace {
bool entry_has_name(const std::string& entry, ks::string_view name) {
    return entry.size() > name.size() && entry.compare(0, name.size(), name) == 0 && entry[name.size()] == '=';
}
}  // namespace

Environ::Environ() : Environ(::environ) {}

Environ::Environ(char* const* envp) {
    for (char* const* e = envp; e && *e; ++e) entries_.emplace_back(*e);
    rebuild();
}

std::vector<std::string>::iterator Environ::find(ks::string_view name) {
    return std::find_if(entries_.begin(), entries_.end(), [&](const std::string& e) { return entry_has_name(e, name); });
}

std::vector<std::string>::const_iterator Environ::find(ks::string_view name) const {
    return std::find_if(entries_.begin(), entries_.end(), [&](const std::string& e) { return entry_has_name(e, name); });
}

std::optional<std::string> Environ::get(ks::string_view name) const {
    auto it = find(name);
    if (it == entries_.end()) return std::nullopt;
    return it->substr(name.size() + 1);
}

bool Environ::set(ks::string_view name, ks::string_view value) {
    if (name.empty() || name.find('=') != ks::string_view::npos) {
        _get_kserrno().set(E_INVAL, "Invalid environment variable name");
        return false;
    }
    std::string entry = name.str() + "=" + value.str();
    auto it = find(name);
    if (it != entries_.end())
        *it = std::move(entry);
    else
        entries_.push_back(std::move(entry));
    rebuild();
    return true;
}

void Environ::unset(ks::string_view name) {
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [&](const std::string& e) { return entry_has_name(e, name); }),
                   entries_.end());
    rebuild();
}

void Environ::rebuild() {
    pointers_.clear();
    pointers_.reserve(entries_.size() + 1);
    for (std::string& e : entries_) pointers_.push_back(e.data());
    pointers_.push_back(nullptr);
}

}  // namespace ks
