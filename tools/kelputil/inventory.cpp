#include "inventory.h"

#include <fnmatch.h>

#include <algorithm>
#include <functional>
#include <set>

#include "cli.h"
#include "files.h"
#include "tls_transport.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;

namespace {

struct group_def {
    std::vector<std::string> hosts, children;
    std::map<std::string, std::string> vars;
};

struct parser {
    std::string file;
    int line = 0;
    std::map<std::string, group_def> groups;
    std::vector<std::string> order;  // hosts as first seen
    std::map<std::string, std::map<std::string, std::string>> host_vars;
    std::set<std::string> grouped;  // hosts named in a group other than all and ungrouped

    status bad(const std::string& what) const {
        return fail(error_kind::local, file + ":" + std::to_string(line) + ": " + what);
    }
};

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r"), b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::string unquote(const std::string& s) {
    if (s.size() >= 2 && (s[0] == '"' || s[0] == '\'') && s.back() == s[0]) return s.substr(1, s.size() - 2);
    return s;
}

// Blank-separated words, quotes keeping blanks inside a value.
std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::string word;
    char quote = 0;
    for (char c : line) {
        if (quote) {
            word += c;
            if (c == quote) quote = 0;
        } else if (c == ' ' || c == '\t') {
            if (!word.empty()) out.push_back(word), word.clear();
        } else {
            if (c == '"' || c == '\'') quote = c;
            word += c;
        }
    }
    if (!word.empty()) out.push_back(word);
    return out;
}

bool is_bool(const std::string& v) {
    static const char* const words[] = {"true", "false", "yes", "no", "on", "off", "1", "0", "True", "False", "Yes", "No"};
    return std::find(std::begin(words), std::end(words), v) != std::end(words);
}

// Our own keys are checked where they are written.
std::string check_value(const std::string& key, const std::string& value) {
    if (key == "port" || key == "ansible_port") {
        char* end = nullptr;
        long n = strtol(value.c_str(), &end, 10);
        if (value.empty() || *end || n < 1 || n > 65535) return key + "=" + value + " is not a port (1 to 65535)";
    } else if (key == "tls" || key == "plain") {
        if (!is_bool(value)) return key + "=" + value + " is not true or false";
    } else if (key == "timeout") {
        long long ms = parse_duration_ms(value);
        if (ms < 100 || ms > 3600 * 1000) return "timeout=" + value + " is not a duration of 0.1 s to 1 h";
    } else if (key == "pin") {
        if (kelp::normalize_sha256(value).empty()) return "pin=" + value + " is not a SHA-256 fingerprint";
    } else if ((key == "password_file" || key == "password_env" || key == "ansible_host") && value.empty()) {
        return key + " is empty";
    }
    return "";
}

// "r[01:03]" -> r01 r02 r03; "[a:c]x" -> ax bx cx; an optional third part
// is the step.
bool expand(const std::string& pattern, std::vector<std::string>* out) {
    size_t open = pattern.find('[');
    if (open == std::string::npos) {
        out->push_back(pattern);
        return true;
    }
    size_t close = pattern.find(']', open);
    if (close == std::string::npos) return false;
    std::string inside = pattern.substr(open + 1, close - open - 1);
    size_t colon = inside.find(':');
    if (colon == std::string::npos) return false;
    std::string from = inside.substr(0, colon), to = inside.substr(colon + 1), step_text = "1";
    size_t second = to.find(':');
    if (second != std::string::npos) step_text = to.substr(second + 1), to = to.substr(0, second);
    int step = atoi(step_text.c_str());
    if (from.empty() || to.empty() || step < 1) return false;
    std::string head = pattern.substr(0, open), tail = pattern.substr(close + 1);
    bool letters = isalpha((unsigned char)from[0]);
    if (letters) {
        if (from.size() != 1 || to.size() != 1 || !isalpha((unsigned char)to[0]) || from[0] > to[0]) return false;
        for (char c = from[0]; c <= to[0]; c = (char)(c + step))
            if (!expand(head + c + tail, out)) return false;
        return true;
    }
    if (from.find_first_not_of("0123456789") != std::string::npos || to.find_first_not_of("0123456789") != std::string::npos)
        return false;
    long a = atol(from.c_str()), b = atol(to.c_str());
    if (a > b || b - a > 100000) return false;
    for (long n = a; n <= b; n += step) {
        std::string number = std::to_string(n);
        if (number.size() < from.size()) number.insert(0, from.size() - number.size(), '0');
        if (!expand(head + number + tail, out)) return false;
    }
    return true;
}

bool valid_name(const std::string& name) {
    // Host names become folders of a backup: nothing that climbs or hides.
    if (name.empty() || name[0] == '.' || name[0] == '-') return false;
    return name.find_first_of("/\\ \t[]:=") == std::string::npos;
}

status host_line(parser& p, const std::string& group, const std::string& text) {
    std::vector<std::string> parts = words(text);
    std::string pattern = parts[0];
    std::map<std::string, std::string> vars;
    // "name:port", the inventory shorthand for ansible_port.
    size_t colon = pattern.rfind(':');
    if (colon != std::string::npos && pattern.find('[') == std::string::npos) {
        std::string port = pattern.substr(colon + 1);
        pattern = pattern.substr(0, colon);
        vars["ansible_port"] = port;
    }
    for (size_t i = 1; i < parts.size(); i++) {
        size_t eq = parts[i].find('=');
        if (eq == std::string::npos || eq == 0) return p.bad("'" + parts[i] + "' is not key=value");
        vars[parts[i].substr(0, eq)] = unquote(parts[i].substr(eq + 1));
    }
    for (const auto& [key, value] : vars) {
        std::string wrong = check_value(key, value);
        if (!wrong.empty()) return p.bad(wrong);
    }
    std::vector<std::string> names;
    if (!expand(pattern, &names)) return p.bad("'" + pattern + "' has a range that is not [FROM:TO] or [FROM:TO:STEP]");
    for (const std::string& name : names) {
        if (!valid_name(name)) return p.bad("'" + name + "' is not a usable host name");
        if (!p.host_vars.count(name)) p.order.push_back(name);
        for (const auto& [key, value] : vars) p.host_vars[name][key] = value;
        group_def& g = p.groups[group];
        if (std::find(g.hosts.begin(), g.hosts.end(), name) == g.hosts.end()) g.hosts.push_back(name);
        if (group != "ungrouped") p.grouped.insert(name);
    }
    return kelp::ok();
}

status vars_line(parser& p, const std::string& group, const std::string& text) {
    size_t eq = text.find('=');
    if (eq == std::string::npos) return p.bad("'" + text + "' is not key=value");
    std::string key = trim(text.substr(0, eq)), value = unquote(trim(text.substr(eq + 1)));
    if (key.empty() || key.find_first_of(" \t") != std::string::npos) return p.bad("'" + key + "' is not a variable name");
    std::string wrong = check_value(key, value);
    if (!wrong.empty()) return p.bad(wrong);
    p.groups[group].vars[key] = value;
    return kelp::ok();
}

status parse(parser& p, const std::string& text) {
    std::string group = "ungrouped", kind = "hosts";
    p.groups["all"], p.groups["ungrouped"];
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = trim(text.substr(start, end - start));
        start = end + 1;
        p.line++;
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '[') {
            if (line.back() != ']') return p.bad("a section header ends with ']'");
            std::string inside = line.substr(1, line.size() - 2);
            size_t colon = inside.find(':');
            group = inside.substr(0, colon);
            kind = colon == std::string::npos ? "hosts" : inside.substr(colon + 1);
            if (kind != "hosts" && kind != "vars" && kind != "children")
                return p.bad("unknown section kind ':" + kind + "' (a group, GROUP:vars or GROUP:children)");
            if (!valid_name(group)) return p.bad("'" + group + "' is not a usable group name");
            p.groups[group];
            continue;
        }
        status st = kind == "vars"       ? vars_line(p, group, line)
                    : kind == "children" ? kelp::ok()
                                         : host_line(p, group, line);
        if (!st) return st;
        if (kind == "children") {
            if (!valid_name(line)) return p.bad("'" + line + "' is not a group name");
            p.groups[group].children.push_back(line);
            p.groups[line];
        }
    }
    return kelp::ok();
}

// Depth of each group below all, and a check that no group contains itself.
status depths(const parser& p, std::map<std::string, int>* depth) {
    std::map<std::string, std::vector<std::string>> parents;
    for (const auto& [name, g] : p.groups)
        for (const std::string& child : g.children) parents[child].push_back(name);
    std::function<int(const std::string&, std::set<std::string>&)> of = [&](const std::string& g, std::set<std::string>& path) {
        if (g == "all") return 0;
        if (depth->count(g)) return (*depth)[g];
        if (!path.insert(g).second) return -1;
        int d = 1;
        for (const std::string& parent : parents[g]) {
            int pd = of(parent, path);
            if (pd < 0) return -1;
            d = std::max(d, pd + 1);
        }
        path.erase(g);
        return (*depth)[g] = d;
    };
    for (const auto& [name, g] : p.groups) {
        std::set<std::string> path;
        if (of(name, path) < 0)
            return fail(error_kind::local, p.file + ": group " + name + " is among its own children");
    }
    return kelp::ok();
}

void members(const parser& p, const std::string& group, std::set<std::string>& seen, std::vector<std::string>* out) {
    if (!seen.insert(group).second) return;
    const group_def& g = p.groups.at(group);
    for (const std::string& h : g.hosts)
        if (std::find(out->begin(), out->end(), h) == out->end()) out->push_back(h);
    for (const std::string& child : g.children) members(p, child, seen, out);
}

}  // namespace

status load_inventory(const std::string& path, inventory* out) {
    kelp::bytes raw;
    status st = read_input(path, &raw, 64u << 20);
    if (!st) return st;
    parser p;
    p.file = path;
    if (!(st = parse(p, std::string(raw.begin(), raw.end())))) return st;
    std::map<std::string, int> depth;
    if (!(st = depths(p, &depth))) return st;

    inventory inv;
    for (const auto& [name, g] : p.groups) {
        std::set<std::string> seen;
        members(p, name, seen, &inv.groups[name]);
    }
    inv.groups["all"] = p.order;
    std::vector<std::string>& ungrouped = inv.groups["ungrouped"];
    ungrouped.erase(std::remove_if(ungrouped.begin(), ungrouped.end(), [&](const std::string& h) { return p.grouped.count(h); }),
                    ungrouped.end());
    // Groups from the shallowest to the deepest, so that the deeper win.
    std::vector<std::string> by_depth;
    for (const auto& [name, g] : p.groups) by_depth.push_back(name);
    std::stable_sort(by_depth.begin(), by_depth.end(), [&](const std::string& a, const std::string& b) { return depth[a] < depth[b]; });
    for (const std::string& name : p.order) {
        inventory_host h;
        h.name = name;
        for (const std::string& g : by_depth) {
            const std::vector<std::string>& hosts = inv.groups[g];
            if (g == "all" || std::find(hosts.begin(), hosts.end(), name) != hosts.end())
                for (const auto& [key, value] : p.groups[g].vars) h.vars[key] = value;
        }
        for (const auto& [key, value] : p.host_vars[name]) h.vars[key] = value;
        inv.hosts.push_back(h);
    }
    *out = std::move(inv);
    return kelp::ok();
}

status select_hosts(const inventory& inv, const std::string& pattern, std::vector<const inventory_host*>* out) {
    out->clear();
    std::set<std::string> chosen;
    bool any_plain_term = false;
    std::vector<std::string> terms;
    std::string term;
    for (char c : pattern + ":") {
        if (c == ':' || c == ',') {
            if (!trim(term).empty()) terms.push_back(trim(term));
            term.clear();
        } else {
            term += c;
        }
    }
    // Unions first, then intersections, then exclusions, whatever the order written.
    auto rank = [](const std::string& t) { return t[0] == '&' ? 1 : t[0] == '!' ? 2 : 0; };
    std::stable_sort(terms.begin(), terms.end(), [&](const std::string& a, const std::string& b) { return rank(a) < rank(b); });
    for (const std::string& t : terms) any_plain_term = any_plain_term || rank(t) == 0;
    if (!any_plain_term)
        for (const inventory_host& h : inv.hosts) chosen.insert(h.name);
    auto matching = [&](const std::string& glob) {
        std::set<std::string> found;
        for (const auto& [group, hosts] : inv.groups)
            if (fnmatch(glob.c_str(), group.c_str(), 0) == 0) found.insert(hosts.begin(), hosts.end());
        for (const inventory_host& h : inv.hosts)
            if (fnmatch(glob.c_str(), h.name.c_str(), 0) == 0) found.insert(h.name);
        return found;
    };
    for (const std::string& t : terms) {
        bool exclude = t[0] == '!', intersect = t[0] == '&';
        std::string glob = exclude || intersect ? t.substr(1) : t;
        std::set<std::string> found = matching(glob);
        if (found.empty() && !exclude)
            return fail(error_kind::local, "--limit: '" + glob + "' matches no host or group of the inventory");
        if (exclude) {
            for (const std::string& h : found) chosen.erase(h);
        } else if (intersect) {
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
    if (out->empty()) return fail(error_kind::local, "no host of the inventory is selected" + (pattern.empty() ? std::string() : " by --limit " + pattern));
    return kelp::ok();
}
