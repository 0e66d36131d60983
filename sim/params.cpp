/* The board's named values. */
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "board.h"

namespace sim {

void Params::add(Param p)
{
    std::string key = p.key;
    params_[key] = std::move(p);
}

void Params::add_double(const std::string& key, double* v, const std::string& doc, double min, double max,
                        bool persist)
{
    add({key, doc, [v] {
             char buf[32];
             snprintf(buf, sizeof buf, "%.9g", *v);
             return std::string(buf);
         },
         [v, min, max](const std::string& s) {
             char* end = nullptr;
             double d = strtod(s.c_str(), &end);
             if (end == s.c_str() || *end != '\0' || !std::isfinite(d) || d < min || d > max)
                 return false;
             *v = d;
             return true;
         },
         persist});
}

void Params::add_int(const std::string& key, int* v, const std::string& doc, long min, long max, bool persist)
{
    add({key, doc, [v] { return std::to_string(*v); },
         [v, min, max](const std::string& s) {
             char* end = nullptr;
             errno = 0;
             long l = strtol(s.c_str(), &end, 0);
             if (end == s.c_str() || *end != '\0' || errno != 0 || l < min || l > max)
                 return false;
             *v = static_cast<int>(l);
             return true;
         },
         persist});
}

void Params::add_string(const std::string& key, std::string* v, const std::string& doc, bool persist)
{
    add({key, doc, [v] { return *v; },
         [v](const std::string& s) {
             *v = s;
             return true;
         },
         persist});
}

void Params::add_readonly(const std::string& key, std::function<std::string()> get, const std::string& doc)
{
    add({key, doc, std::move(get), nullptr, false});
}

void Params::add_internal(const std::string& key, std::function<std::string()> get,
                          std::function<bool(const std::string&)> set)
{
    add({key, "", std::move(get), std::move(set), true, true});
}

const Param* Params::find(const std::string& key) const
{
    auto it = params_.find(key);
    return it == params_.end() || it->second.internal ? nullptr : &it->second;
}

bool Params::restore(const std::string& key, const std::string& value)
{
    auto it = params_.find(key);
    return it != params_.end() && it->second.set && it->second.set(value);
}

std::string Params::set(const std::string& key, const std::string& value)
{
    const Param* p = find(key);
    if (p == nullptr)
        return "unknown key '" + key + "'";
    if (!p->set)
        return "'" + key + "' is read-only";
    if (!p->set(value))
        return "bad value '" + value + "' for '" + key + "' (" + p->doc + ")";
    return {};
}

} // namespace sim
