#include "inventory.h"

#include <algorithm>
#include <functional>
#include <set>

#include "clock.h"
#include "durations.h"
#include "files.h"
#include "lines.h"
#include "tls_transport.h"
#include "words.h"

using kelp::error_kind;
using kelp::fail;
using kelp::status;
using kelp::trim;

namespace {

const char* const our_keys[] = {"port", "tls", "plain", "pin", "password_file", "password_env", "timeout"};

struct group_def {
    std::vector<std::string> hosts, children;
    std::set<std::string> has;  // hosts, to keep them unique in a large inventory
    std::map<std::string, std::string> vars;
};

struct parser {
    std::string file;
    int line = 0;
    std::map<std::string, group_def> groups;
    std::vector<std::string> group_order{"all", "ungrouped"};
    std::set<std::string> declared{"all", "ungrouped"};  // by [g] or [g:children]
    std::map<std::string, int> referenced;               // by [g:vars] or a child line: the first line
    std::vector<std::string> order;                      // hosts as first written
    std::map<std::string, std::map<std::string, std::string>> host_vars;
    std::map<std::string, std::pair<std::string, int>> address_at;  // ansible_host and its line
    std::set<std::string> grouped;  // hosts named in a group other than all and ungrouped
    std::set<std::string> unknown_keys;
    std::vector<std::string> warnings;

    std::string where(int at) const { return file + ":" + std::to_string(at); }
    status bad(const std::string& what) const { return fail(error_kind::local, where(line) + ": " + what); }
};

// Host lines are split as a POSIX shell would, '#' outside quotes ending the
// line: that is how Ansible reads "edge1 ansible_host=192.0.2.7 # lab".
bool shell_words(const std::string& line, std::vector<std::string>* out) {
    std::string word;
    bool in_word = false;
    for (size_t i = 0; i < line.size(); i++) {
        char c = line[i];
        if (c == ' ' || c == '\t') {
            if (in_word) out->push_back(word), word.clear(), in_word = false;
        } else if (c == '#') {
            break;
        } else if (c == '\\' && i + 1 < line.size()) {
            word += line[++i], in_word = true;
        } else if (c == '\'' || c == '"') {
            size_t close = i + 1;
            for (; close < line.size() && line[close] != c; close++)
                if (c == '"' && line[close] == '\\' && close + 1 < line.size() &&
                    (line[close + 1] == '"' || line[close + 1] == '\\'))
                    close++;
            if (close >= line.size()) return false;
            for (size_t j = i + 1; j < close; j++) {
                if (c == '"' && line[j] == '\\' && (line[j + 1] == '"' || line[j + 1] == '\\')) j++;
                word += line[j];
            }
            i = close, in_word = true;
        } else {
            word += c, in_word = true;
        }
    }
    if (in_word) out->push_back(word);
    return true;
}

bool all_digits(const std::string& s, size_t from, size_t to) {
    return from < to && std::all_of(s.begin() + from, s.begin() + to, [](char c) { return isdigit((unsigned char)c); });
}

// A Python number: 12, -3, 0.5, .5, 1e3; an integer with a leading zero is
// not one.
bool python_number(const std::string& s) {
    size_t start = s[0] == '+' || s[0] == '-' ? 1 : 0, exponent = s.find_first_of("eE", start);
    std::string mantissa = s.substr(start, exponent == std::string::npos ? std::string::npos : exponent - start);
    size_t dot = mantissa.find('.');
    bool whole = dot == std::string::npos
                     ? all_digits(mantissa, 0, mantissa.size())
                     : (all_digits(mantissa, 0, dot) || dot == 0) &&
                           (all_digits(mantissa, dot + 1, mantissa.size()) || dot + 1 == mantissa.size()) &&
                           mantissa.size() > 1;
    if (!whole ||
        (dot == std::string::npos && exponent == std::string::npos && mantissa.size() > 1 && mantissa[0] == '0'))
        return false;
    if (exponent == std::string::npos) return true;
    size_t digits = exponent + 1 + (s[exponent + 1] == '+' || s[exponent + 1] == '-');
    return all_digits(s, digits, s.size());
}

// A value Ansible's literal evaluation takes as a Python literal: a quoted
// string (which loses its quotes), a number, True, False or None.
bool python_literal(const std::string& text, std::string* value) {
    std::string s = trim(text);
    if (s.size() >= 2 && (s[0] == '"' || s[0] == '\'') && s.back() == s[0] && s.find(s[0], 1) == s.size() - 1) {
        *value = s.substr(1, s.size() - 2);
        return true;
    }
    if (!s.empty() && (s == "True" || s == "False" || s == "None" || python_number(s))) {
        *value = s;
        return true;
    }
    return false;
}

// In a :vars line the whole rest is the value: a comment after a literal
// goes, after a bare word it stays part of the value, as Ansible has it.
std::string vars_value(const std::string& text) {
    std::string literal;
    if (python_literal(text, &literal)) return literal;
    char quote = 0;
    for (size_t i = 0; i < text.size(); i++)
        if (quote) {
            quote = text[i] == quote ? 0 : quote;
        } else if (text[i] == '"' || text[i] == '\'') {
            quote = text[i];
        } else if (text[i] == '#') {
            return python_literal(text.substr(0, i), &literal) ? literal : text;
        }
    return text;
}

bool is_bool(const std::string& v) {
    bool ignored;
    return boolean_word(v, &ignored);
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
        if (ms < timeout_min_ms || ms > timeout_max_ms)
            return "timeout=" + value + " is not a duration of " + kelp::seconds_text(timeout_min_ms / 1000.0) +
                   " to " + kelp::seconds_text(timeout_max_ms / 1000.0);
    } else if (key == "pin") {
        if (kelp::normalize_sha256(value).empty()) return "pin=" + value + " is not a SHA-256 fingerprint";
    } else if ((key == "password_file" || key == "password_env" || key == "ansible_host") && value.empty()) {
        return key + " is empty";
    }
    return "";
}

// Keys that are neither ours nor Ansible's are most likely typos: said once,
// where first written, never fatal.
void note_key(parser& p, const std::string& key) {
    if (key.rfind("ansible_", 0) == 0 || std::find(std::begin(our_keys), std::end(our_keys), key) != std::end(our_keys))
        return;
    if (!p.unknown_keys.insert(key).second) return;
    std::string best = closest(key, std::vector<std::string>(std::begin(our_keys), std::end(our_keys)));
    p.warnings.push_back(p.where(p.line) + ": kelputil does not know the key '" + key + "'" +
                         (best.empty() ? "" : " (did you mean '" + best + "'?)") + "; it is ignored");
}

status add_var(parser& p, std::map<std::string, std::string>& vars, const std::string& key, const std::string& value,
               bool in_vars_section) {
    std::string wrong = check_value(key, value);
    if (!wrong.empty())
        return p.bad(wrong + (in_vars_section && value.find('#') != std::string::npos
                                  ? " (in a :vars section a comment after a word is part of the value: put it on a "
                                    "line of its own)"
                                  : ""));
    note_key(p, key);
    vars[key] = value;
    return kelp::ok();
}

constexpr size_t hosts_max = 100000;

// "r[01:03]" -> r01 r02 r03; "[a:c]x" -> ax bx cx; an optional third part
// is the step; an empty start is 0. Returns what is wrong, or "".
std::string expand(const std::string& pattern, std::vector<std::string>* out) {
    static const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const std::string usage = "'" + pattern + "' has a range that is not [FROM:TO] or [FROM:TO:STEP]";
    size_t open = pattern.find('['), close = pattern.find(']', open);
    if (open == std::string::npos) {
        // Each range is bounded, but ranges multiply: "r[0:9999][0:9999]".
        if (out->size() >= hosts_max) return "its ranges make more than " + std::to_string(hosts_max) + " hosts";
        return out->push_back(pattern), "";
    }
    if (close == std::string::npos) return usage;
    std::string inside = pattern.substr(open + 1, close - open - 1), from, to, step_text = "1";
    size_t colon = inside.find(':'), second = inside.find(':', colon + 1);
    if (colon == std::string::npos) return usage;
    from = inside.substr(0, colon);
    to = inside.substr(colon + 1, second == std::string::npos ? std::string::npos : second - colon - 1);
    if (second != std::string::npos) step_text = inside.substr(second + 1);
    if (from.empty()) from = "0";
    int step = atoi(step_text.c_str());
    if (to.empty() || step < 1 || step_text.find_first_not_of("0123456789") != std::string::npos) return usage;
    std::string head = pattern.substr(0, open), tail = pattern.substr(close + 1), wrong;
    std::vector<std::string> items;
    size_t a = letters.find(from), b = letters.find(to);
    if (from.size() == 1 && to.size() == 1 && a != std::string::npos && b != std::string::npos) {
        if (a > b) return usage;
        for (size_t i = a; i <= b; i += step) items.push_back(letters.substr(i, 1));
    } else {
        if (from.find_first_not_of("0123456789") != std::string::npos ||
            to.find_first_not_of("0123456789") != std::string::npos)
            return usage;
        // Ansible pads to the width of a start with a leading zero, and
        // refuses an end of another width.
        if (from.size() > 1 && from[0] == '0' && from.size() != to.size())
            return "'" + pattern + "' has a range whose ends differ in width: write [" + from + ":" +
                   std::string(from.size() > to.size() ? from.size() - to.size() : 0, '0') + to + "]";
        long x = atol(from.c_str()), y = atol(to.c_str());
        if (x > y || y - x > (long)hosts_max) return usage;
        for (long n = x; n <= y; n += step) {
            std::string number = std::to_string(n);
            if (number.size() < from.size()) number.insert(0, from.size() - number.size(), '0');
            items.push_back(number);
        }
    }
    for (const std::string& item : items)
        if (!(wrong = expand(head + item + tail, out)).empty()) return wrong;
    return "";
}

// "name:port", the inventory shorthand for ansible_port, also after a range.
std::string split_port(std::string* pattern) {
    size_t colon = pattern->rfind(':'), close = pattern->rfind(']');
    if (colon == std::string::npos || (close != std::string::npos && colon < close)) return "";
    std::string port = pattern->substr(colon + 1);
    pattern->resize(colon);
    return port;
}

// One address per host: a second line giving another is a mistake, and
// which one wins would be a guess.
status check_address(parser& p, const std::string& name, const std::map<std::string, std::string>& vars) {
    auto it = vars.find("ansible_host");
    if (it == vars.end()) return kelp::ok();
    auto [known, fresh] = p.address_at.emplace(name, std::make_pair(it->second, p.line));
    if (fresh || known->second.first == it->second) return kelp::ok();
    return p.bad(name + " has ansible_host=" + it->second + " here and ansible_host=" + known->second.first + " at " +
                 p.where(known->second.second) + ": a host has one address; remove one, or name them apart");
}

void add_member(parser& p, const std::string& group, const std::string& name,
                const std::map<std::string, std::string>& vars) {
    if (!p.host_vars.count(name)) p.order.push_back(name);
    std::map<std::string, std::string>& mine = p.host_vars[name];
    for (const auto& [key, value] : vars) mine[key] = value;
    group_def& g = p.groups[group];
    if (g.has.insert(name).second) g.hosts.push_back(name);
    if (group != "ungrouped" && group != "all") p.grouped.insert(name);
}

status host_line(parser& p, const std::string& group, const std::string& text) {
    std::vector<std::string> parts;
    if (!shell_words(text, &parts)) return p.bad("a quote is not closed");
    if (parts.empty()) return kelp::ok();
    std::string pattern = parts[0], port = split_port(&pattern);
    std::map<std::string, std::string> vars;
    status st = port.empty() ? kelp::ok() : add_var(p, vars, "ansible_port", port, false);
    for (size_t i = 1; st && i < parts.size(); i++) {
        size_t eq = parts[i].find('=');
        if (eq == std::string::npos || eq == 0) return p.bad("'" + parts[i] + "' is not key=value");
        std::string value = parts[i].substr(eq + 1), literal;
        st = add_var(p, vars, parts[i].substr(0, eq), python_literal(value, &literal) ? literal : value, false);
    }
    if (!st) return st;
    std::vector<std::string> names;
    std::string wrong = expand(pattern, &names);
    if (!wrong.empty()) return p.bad(wrong);
    for (const std::string& name : names) {
        std::string wrong = host_name_problem(name);
        if (!wrong.empty()) return p.bad("'" + name + "' is not a usable host name: " + wrong);
        if (!(st = check_address(p, name, vars))) return st;
        add_member(p, group, name, vars);
    }
    return kelp::ok();
}

status vars_line(parser& p, const std::string& group, const std::string& text) {
    size_t eq = text.find('=');
    if (eq == std::string::npos) return p.bad("'" + text + "' is not key=value");
    std::string key = trim(text.substr(0, eq)), value = vars_value(trim(text.substr(eq + 1)));
    if (key.empty() || key.find_first_of(" \t") != std::string::npos)
        return p.bad("'" + key + "' is not a variable name");
    return add_var(p, p.groups[group].vars, key, value, true);
}

// What may follow a section header or a child group: nothing, or a comment.
bool only_comment(const std::string& rest) {
    std::string r = trim(rest);
    return r.empty() || r[0] == '#';
}

status children_line(parser& p, const std::string& group, const std::string& text) {
    size_t end = text.find_first_of(":] \t");
    std::string name = text.substr(0, end);
    if (!only_comment(end == std::string::npos ? "" : text.substr(end)) || text[end] == ':' || text[end] == ']' ||
        !host_name_problem(name).empty())
        return p.bad("'" + text + "' is not a group name");
    std::vector<std::string>& children = p.groups[group].children;
    if (std::find(children.begin(), children.end(), name) == children.end()) children.push_back(name);
    p.referenced.emplace(name, p.line);
    return kelp::ok();
}

// "[GROUP]", "[GROUP:KIND]", then at most a comment.
status section_line(parser& p, const std::string& line, std::string* group, std::string* kind) {
    size_t close = line.find(']'), colon = line.find(':');
    if (colon > close) colon = close;
    *group = line.substr(1, colon - 1);
    *kind = colon < close ? line.substr(colon + 1, close - colon - 1) : "hosts";
    bool word = !kind->empty() &&
                std::all_of(kind->begin(), kind->end(), [](char c) { return isalnum((unsigned char)c) || c == '_'; });
    if (close == std::string::npos || !only_comment(line.substr(close + 1)) || group->empty() ||
        group->find_first_of(" \t") != std::string::npos || !word)
        return p.bad("a section header is [GROUP], [GROUP:vars] or [GROUP:children]");
    if (*kind != "hosts" && *kind != "vars" && *kind != "children")
        return p.bad("unknown section kind ':" + *kind + "' (a group, GROUP:vars or GROUP:children)");
    if (!host_name_problem(*group).empty()) return p.bad("'" + *group + "' is not a usable group name");
    if (!p.groups.count(*group)) p.group_order.push_back(*group);
    p.groups[*group];
    if (*kind == "vars")
        p.referenced.emplace(*group, p.line);
    else
        p.declared.insert(*group);
    return kelp::ok();
}

status parse(parser& p, const std::string& text) {
    std::string group = "ungrouped", kind = "hosts";
    p.groups["all"];
    p.groups["ungrouped"];
    // Editors on Windows start a UTF-8 file with a byte-order mark.
    size_t start = text.rfind("\xEF\xBB\xBF", 0) == 0 ? 3 : 0;
    for (std::string_view raw : kelp::lines_of(std::string_view(text).substr(start))) {
        std::string line = trim(raw);
        p.line++;
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        status st = line[0] == '['       ? section_line(p, line, &group, &kind)
                    : kind == "vars"     ? vars_line(p, group, line)
                    : kind == "children" ? children_line(p, group, line)
                                         : host_line(p, group, line);
        if (!st) return st;
    }
    return kelp::ok();
}

// As Ansible: [g:vars] and child lines may only name groups that a [g] or
// [g:children] section declares somewhere.
status check_declared(const parser& p) {
    std::pair<int, std::string> first{0, ""};
    for (const auto& [name, at] : p.referenced)
        if (!p.declared.count(name) && (!first.first || at < first.first)) first = {at, name};
    if (!first.first) return kelp::ok();
    return fail(error_kind::local, p.where(first.first) + ": no [" + first.second + "] or [" + first.second +
                                       ":children] section declares the group " + first.second);
}

// Depth of each group below all, and a check that no group contains itself.
status depths(const parser& p, std::map<std::string, int>* depth) {
    std::map<std::string, std::vector<std::string>> parents;
    for (const auto& [name, g] : p.groups)
        for (const std::string& child : g.children) parents[child].push_back(name);
    std::function<int(const std::string&, std::set<std::string>&)> of = [&](const std::string& g,
                                                                            std::set<std::string>& path) {
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

// all holds ungrouped and every group no other group holds, in the order
// they were declared; ungrouped keeps only hosts of no other group.
void settle_top(parser& p) {
    std::set<std::string> held;
    for (const auto& [name, g] : p.groups) held.insert(g.children.begin(), g.children.end());
    std::vector<std::string>& top = p.groups["all"].children;
    for (const std::string& name : p.group_order)
        if (name != "all" && !held.count(name) && std::find(top.begin(), top.end(), name) == top.end())
            top.push_back(name);
    group_def& ungrouped = p.groups["ungrouped"];
    for (const std::string& h : p.order)
        if (!p.grouped.count(h) && ungrouped.has.insert(h).second) ungrouped.hosts.push_back(h);
    ungrouped.hosts.erase(std::remove_if(ungrouped.hosts.begin(), ungrouped.hosts.end(),
                                         [&](const std::string& h) { return p.grouped.count(h); }),
                          ungrouped.hosts.end());
}

// A group's hosts in Ansible's order: its own, then its children's, then
// their children's, level by level.
std::vector<std::string> members(const parser& p, const std::string& group) {
    std::vector<std::string> levels{group}, out;
    std::set<std::string> seen_groups{group}, seen_hosts;
    for (size_t i = 0; i < levels.size(); i++)
        for (const std::string& child : p.groups.at(levels[i]).children)
            if (seen_groups.insert(child).second) levels.push_back(child);
    for (const std::string& g : levels)
        for (const std::string& h : p.groups.at(g).hosts)
            if (seen_hosts.insert(h).second) out.push_back(h);
    return out;
}

}  // namespace

std::string host_name_problem(const std::string& name) {
    bool control = std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
    if (name.empty() || name.size() > max_host_name || name[0] == '.' || name[0] == '-' || control ||
        name.find_first_of("/\\ \t[]*?:=") != std::string::npos)
        return "it names a folder of the backups, so no '*', '?', '[', ']', ':', '=', '/', '\\', spaces or control "
               "characters, no '.' or '-' first, at most " +
               std::to_string(max_host_name) + " bytes";
    return "";
}

status load_inventory(const std::string& path, inventory* out) {
    kelp::bytes raw;
    status st = read_input(path, &raw, 64u << 20);
    if (!st) return st;
    parser p;
    p.file = path;
    if (!(st = parse(p, std::string(raw.begin(), raw.end())))) return st;
    if (!(st = check_declared(p))) return st;
    std::map<std::string, int> depth;
    if (!(st = depths(p, &depth))) return st;
    settle_top(p);

    inventory inv;
    for (const auto& [name, g] : p.groups) inv.groups[name] = members(p, name);
    inv.group_order = p.group_order;
    inv.defined = p.order;
    inv.warnings = p.warnings;
    // Groups from the shallowest to the deepest, so that the deeper win;
    // then the host's own.
    std::vector<std::string> by_depth;
    for (const auto& [name, g] : p.groups) by_depth.push_back(name);
    std::stable_sort(by_depth.begin(), by_depth.end(),
                     [&](const std::string& a, const std::string& b) { return depth[a] < depth[b]; });
    std::map<std::string, std::map<std::string, std::string>> vars;
    for (const std::string& g : by_depth)
        for (const std::string& host : inv.groups[g])
            for (const auto& [key, value] : p.groups[g].vars) vars[host][key] = value;
    for (const std::string& name : inv.groups["all"]) {
        std::map<std::string, std::string>& mine = vars[name];
        for (const auto& [key, value] : p.host_vars[name]) mine[key] = value;
        inv.hosts.push_back({name, std::move(mine)});
    }
    *out = std::move(inv);
    return kelp::ok();
}
