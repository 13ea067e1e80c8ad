// --limit, evaluated as Ansible evaluates a --limit over the group all.
#include <fnmatch.h>

#include <algorithm>
#include <regex>
#include <set>

#include "inventory.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;

namespace {

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r\n"), b = s.find_last_not_of(" \t\r\n");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// "a,b" splits at commas only; without one, ':' separates too, except
// inside brackets, where it belongs to a subscript.
std::vector<std::string> split_pattern(const std::string& pattern) {
    std::vector<std::string> out;
    if (pattern.find(',') != std::string::npos) {
        for (size_t start = 0, end; start <= pattern.size(); start = end + 1) {
            end = std::min(pattern.find(',', start), pattern.size());
            std::string element = trim(pattern.substr(start, end - start));
            if (!element.empty()) out.push_back(element);
        }
        return out;
    }
    static const std::regex element(R"((?:[^\s:\[\]]|\[[^\]]*\])+)");
    for (std::sregex_iterator it(pattern.begin(), pattern.end(), element), end; it != end; ++it) out.push_back(it->str());
    return out;
}

// Unions first, then intersections, then exclusions, whatever the order
// written; only & and ! elements start from every host.
std::vector<std::string> in_evaluation_order(const std::vector<std::string>& elements) {
    std::vector<std::string> out;
    for (char kind : {'+', '&', '!'})
        for (const std::string& e : elements)
            if ((kind == '+' && e[0] != '&' && e[0] != '!') || e[0] == kind) out.push_back(e);
    if (out.empty() || out[0][0] == '&' || out[0][0] == '!') out.insert(out.begin(), "all");
    return out;
}

struct subscript {
    bool given = false, single = false;
    long start = 0, end = -1;  // end -1: to the last
};

// "name[N]", "name[A:B]", "name[A:]" (and the older "name[A-B]"); not for
// a ~regex, whose brackets are its own.
std::string split_subscript(const std::string& element, subscript* sub) {
    static const std::regex with(R"((.+)\[(?:(-?[0-9]+)|([0-9]+)([:-])([0-9]*))\])");
    std::smatch m;
    if (element[0] == '~' || !std::regex_match(element, m, with)) return element;
    sub->given = true;
    if (m[2].matched) {
        sub->single = true;
        sub->start = std::stol(m[2]);
    } else {
        sub->start = std::stol(m[3]);
        sub->end = m[5].length() ? std::stol(m[5]) : -1;
        sub->single = sub->end == 0;  // Ansible reads [A:0] as [A]
    }
    return m[1];
}

// A glob as Python's fnmatch has it (no escapes), or a ~regex anchored at
// the start only, as Python's re.match.
struct matcher {
    explicit matcher(const std::string& expression) : glob(expression) {
        if (expression[0] == '~') re = std::regex(expression.substr(1)), is_regex = true;
    }
    bool operator()(const std::string& name) const {
        if (!is_regex) return fnmatch(glob.c_str(), name.c_str(), FNM_NOESCAPE) == 0;
        return std::regex_search(name, re, std::regex_constants::match_continuous);
    }
    std::string glob;
    std::regex re;
    bool is_regex = false;
};

// Hosts of every group the expression names, then, when it names no group
// or is a glob or regex, the hosts it names; duplicates kept, as a
// subscript counts them.
std::vector<std::string> enumerate(const inventory& inv, const std::string& expression) {
    std::vector<std::string> out;
    matcher matches(expression);
    bool any_group = false;
    for (const std::string& g : inv.group_order)
        if (matches(g)) {
            any_group = true;
            const std::vector<std::string>& hosts = inv.groups.at(g);
            out.insert(out.end(), hosts.begin(), hosts.end());
        }
    if (!any_group || expression[0] == '~' || expression.find_first_of(".?*[") != std::string::npos)
        for (const std::string& h : inv.defined)
            if (matches(h)) out.push_back(h);
    return out;
}

status apply_subscript(const std::string& element, const subscript& sub, std::vector<std::string>* hosts) {
    if (!sub.given || hosts->empty()) return kelp::ok();
    long n = (long)hosts->size();
    if (sub.single) {
        long i = sub.start < 0 ? sub.start + n : sub.start;
        if (i < 0 || i >= n)
            return fail(error_kind::local, "--limit: '" + element + "' is out of range: it matches " + std::to_string(n) +
                                               " hosts, 0 to " + std::to_string(n - 1) + " (or -1 for the last)");
        *hosts = {(*hosts)[i]};
        return kelp::ok();
    }
    long end = sub.end < 0 ? n : std::min(sub.end + 1, n);
    long start = std::min(sub.start, n);
    *hosts = std::vector<std::string>(hosts->begin() + start, hosts->begin() + std::max(start, end));
    return kelp::ok();
}

status one_element(const inventory& inv, const std::string& element, std::set<std::string>* found) {
    std::string bare = element[0] == '&' || element[0] == '!' ? element.substr(1) : element;
    if (bare.empty()) return fail(error_kind::local, "--limit: '" + element + "' names nothing");
    subscript sub;
    std::string expression = split_subscript(bare, &sub);
    std::vector<std::string> hosts;
    try {
        // A plain host name is that host, even where a group has its name.
        if (element == bare && std::find(inv.defined.begin(), inv.defined.end(), bare) != inv.defined.end())
            hosts = {bare};
        else
            hosts = enumerate(inv, expression);
    } catch (const std::regex_error&) {
        return fail(error_kind::local, "--limit: '" + bare + "' is not a regular expression");
    }
    status st = apply_subscript(bare, sub, &hosts);
    if (!st) return st;
    if (hosts.empty())
        return fail(error_kind::local,
                    "--limit: '" + bare + "' matches no host or group of the inventory" +
                        (bare.find("[:") != std::string::npos ? " ([:B] is no subscript; write [0:B])" : ""));
    found->insert(hosts.begin(), hosts.end());
    return kelp::ok();
}

}  // namespace

status select_hosts(const inventory& inv, const std::string& pattern, std::vector<const inventory_host*>* out) {
    out->clear();
    std::set<std::string> chosen;
    for (const std::string& element : in_evaluation_order(split_pattern(pattern))) {
        std::set<std::string> found;
        status st = one_element(inv, element, &found);
        if (!st) return st;
        if (element[0] == '!') {
            for (const std::string& h : found) chosen.erase(h);
        } else if (element[0] == '&') {
            std::set<std::string> both;
            for (const std::string& h : chosen)
                if (found.count(h)) both.insert(h);
            chosen = both;
        } else {
            chosen.insert(found.begin(), found.end());
        }
    }
    for (const inventory_host& h : inv.hosts)
        if (chosen.count(h.name)) out->push_back(&h);
    if (out->empty())
        return fail(error_kind::local,
                    "no host of the inventory is selected" + (pattern.empty() ? std::string() : " by --limit " + pattern));
    return kelp::ok();
}
