// --limit, evaluated as Ansible evaluates a --limit over the group all.
#include <fnmatch.h>

#include <string.h>

#include <algorithm>
#include <regex>
#include <set>

#include "inventory.h"
#include "lines.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;
using kelp::trim;

namespace {

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
    std::string element;
    for (size_t i = 0; i <= pattern.size(); i++) {
        size_t close = i < pattern.size() && pattern[i] == '[' ? pattern.find(']', i) : std::string::npos;
        if (close != std::string::npos) {
            element += pattern.substr(i, close - i + 1);
            i = close;
        } else if (i == pattern.size() || strchr(" \t\r\n:[]", pattern[i])) {
            if (!element.empty()) out.push_back(element);
            element.clear();
        } else {
            element += pattern[i];
        }
    }
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

bool digits(const std::string& s) {
    return !s.empty() && s.size() < 10 && s.find_first_not_of("0123456789") == std::string::npos;
}

// "name[N]", "name[A:B]", "name[A:]" (and the older "name[A-B]"); not for
// a ~regex, whose brackets are its own.
std::string split_subscript(const std::string& element, subscript* sub) {
    size_t open = element.rfind('[');
    if (element[0] == '~' || element.back() != ']' || open == std::string::npos || open == 0) return element;
    std::string inside = element.substr(open + 1, element.size() - open - 2);
    size_t sep = inside.find_first_of(":-", 1);
    if (digits(inside) || (inside[0] == '-' && digits(inside.substr(1)))) {
        sub->single = true;
        sub->start = std::stol(inside);
    } else if (sep != std::string::npos && digits(inside.substr(0, sep)) &&
               (sep + 1 == inside.size() || digits(inside.substr(sep + 1)))) {
        sub->start = std::stol(inside.substr(0, sep));
        sub->end = sep + 1 == inside.size() ? -1 : std::stol(inside.substr(sep + 1));
        sub->single = sub->end == 0;  // Ansible reads [A:0] as [A]
    } else {
        return element;
    }
    sub->given = true;
    return element.substr(0, open);
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
            return fail(error_kind::local, "--limit: '" + element + "' is out of range: it matches " +
                                               std::to_string(n) + " hosts, 0 to " + std::to_string(n - 1) +
                                               " (or -1 for the last)");
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
    // Longer than any host name could be; and a huge ~regex would exhaust
    // the stack compiling it.
    if (bare.size() > 1024)
        return fail(error_kind::local,
                    "--limit: an element of " + std::to_string(bare.size()) + " characters (at most 1024)");
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
        return fail(error_kind::local, "no host of the inventory is selected" +
                                           (pattern.empty() ? std::string() : " by --limit " + pattern));
    return kelp::ok();
}
