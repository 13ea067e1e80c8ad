// Inventories as configuration-management tools write them: every construct,
// every kind of bad line (reported as FILE:LINE), and --limit patterns.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "inventory.h"
#include "router.h"

namespace {

kelp::status load(const std::string& text, inventory* out, std::string* path = nullptr) {
    char p[] = "/tmp/inventory-test-XXXXXX";
    close(mkstemp(p));
    router::write_file(p, text);
    kelp::status st = load_inventory(p, out);
    unlink(p);
    if (path) *path = p;
    return st;
}

std::string vars_of(const inventory& inv, const std::string& host) {
    for (const inventory_host& h : inv.hosts)
        if (h.name == host) {
            std::string out;
            for (const auto& [k, v] : h.vars) out += k + "=" + v + " ";
            return out;
        }
    return "(no such host)";
}

const std::string pin(64, 'a');
// A byte-order mark, comments after lines, a host in two ranges and two
// groups, unknown keys: all as Ansible reads them.
const std::string fleet = std::string() +
    "\xEF\xBB\xBF# edge routers first\n"
    "edge1 ansible_host=192.0.2.7 timeout=30 # lab\n"
    "edge2:8857\n"
    "[routers]\n"
    "r[01:02]\n"
    "r[02:03] password_env=ROUTER_PW\n"
    "r03 port=1857 pin=\"" + pin + "\"\n" +
    "[lab] # the bench\n"
    "lab-[a:b] plain=yes\n"
    "lab-a prot=856 pasword_env=PW colour=\"red # blue\" ansible_user=admin\n"
    "lab-b prot=857\n"
    "r02\n"
    "[routers:vars]\n"
    "timeout = 20 # seconds\n"
    "tls=true\n"
    "[emea:children]\n"
    "routers # all of them\n"
    "[emea:vars]\n"
    "timeout=40\n"
    "password_env=EMEA_PW\n"
    "[all:vars]\n"
    "password_file=/etc/kelp/pw\n";

}  // namespace

TEST(Inventory, ConstructsAndPrecedence) {
    inventory inv;
    std::string path;
    kelp::status st = load(fleet, &inv, &path);
    ASSERT_TRUE(st) << st.message;
    std::vector<std::string> names;
    for (const inventory_host& h : inv.hosts) names.push_back(h.name);
    // Each host once, in Ansible's order: ungrouped, then the top groups as
    // declared, then the groups they hold.
    EXPECT_EQ(names, (std::vector<std::string>{"edge1", "edge2", "lab-a", "lab-b", "r02", "r01", "r03"}));
    struct { const char* host; std::string vars; } rows[] = {
        {"edge1", "ansible_host=192.0.2.7 password_file=/etc/kelp/pw timeout=30 "},
        {"edge2", "ansible_port=8857 password_file=/etc/kelp/pw "},
        // routers (depth 2) over emea (depth 1) over all; the host's own last.
        {"r01", "password_env=EMEA_PW password_file=/etc/kelp/pw timeout=20 tls=true "},
        {"r02", "password_env=ROUTER_PW password_file=/etc/kelp/pw timeout=20 tls=true "},
        {"r03", "password_env=ROUTER_PW password_file=/etc/kelp/pw pin=" + std::string(64, 'a') +
                    " port=1857 timeout=20 tls=true "},
        {"lab-a", "ansible_user=admin colour=red # blue password_file=/etc/kelp/pw pasword_env=PW plain=yes prot=856 "},
        {"lab-b", "password_file=/etc/kelp/pw plain=yes prot=857 "},
    };
    for (const auto& row : rows) EXPECT_EQ(vars_of(inv, row.host), row.vars) << row.host;
    EXPECT_EQ(inv.groups["emea"], (std::vector<std::string>{"r01", "r02", "r03"}));
    EXPECT_EQ(inv.groups["lab"], (std::vector<std::string>{"lab-a", "lab-b", "r02"}));
    EXPECT_EQ(inv.groups["ungrouped"], (std::vector<std::string>{"edge1", "edge2"}));
    EXPECT_EQ(inv.warnings, (std::vector<std::string>{
        path + ":10: kelputil does not know the key 'prot' (did you mean 'port'?); it is ignored",
        path + ":10: kelputil does not know the key 'pasword_env' (did you mean 'password_env'?); it is ignored",
        path + ":10: kelputil does not know the key 'colour'; it is ignored"}));
}

TEST(Inventory, BadLinesNameFileAndLine) {
    // says: after "FILE:"; '@' stands for FILE
    struct { std::string text; std::string says; } rows[] = {
        {"[routers\nr1\n", "1: a section header is [GROUP], [GROUP:vars] or [GROUP:children]"},
        {"r1\n[routers:hosts2]\n", "2: unknown section kind ':hosts2'"},
        {"r1 port=abc\n", "1: port=abc is not a port (1 to 65535)"},
        {"r1 ansible_port=70000\n", "1: ansible_port=70000 is not a port"},
        {"\n\nr1 tls=maybe\n", "3: tls=maybe is not true or false"},
        {"r1 timeout=forever\n", "1: timeout=forever is not a duration"},
        {"r1 pin=xyz\n", "1: pin=xyz is not a SHA-256 fingerprint"}, {"r1 junk\n", "1: 'junk' is not key=value"},
        {"r1 x=\"open\n", "1: a quote is not closed"}, {"[g:vars]\nnovalue\n", "2: 'novalue' is not key=value"},
        // In a :vars section Ansible keeps a comment after a word in the value.
        {"[g]\nr1\n[g:vars]\ntls=true # lab\n", "4: tls=true # lab is not true or false (in a :vars section"},
        {"r1\n[g:vars]\nk=1\n", "2: no [g] or [g:children] section declares the group g"},
        {"[a:children]\nb\n", "2: no [b] or [b:children] section declares the group b"},
        {"r[3:1]\n", "1: 'r[3:1]' has a range that is not [FROM:TO]"},
        {"r[01:3]\n", "1: 'r[01:3]' has a range whose ends differ in width: write [01:03]"},
        {"r[0:9999]-[0:9999]\n", "1: its ranges make more than 100000 hosts"},
        {"../evil\n", "1: '../evil' is not a usable host name"}, {"[g]\nr1\nr*\n", "3: 'r*' is not a usable host name"},
        {"r?1\n", "1: 'r?1' is not"}, {"-r\n", "1: '-r' is not"}, {"r\x01\n", "1: 'r\x01' is not"},
        {"r\x7f\n", "1: 'r\x7f' is not"}, {std::string(201, 'r') + "\n", "1: '" + std::string(201, 'r') + "' is not"},
        {"[a:children]\nb c\n", "2: 'b c' is not a group name"}, {"[a:children]\nb\n[b:children]\na\n", " group "},
        // Long lines are read, not recursed over.
        {"[g] # " + std::string(200000, 'x') + "\n[g:children] # " + std::string(200000, 'x') + "\nr1 x\n",
         "3: 'r1 x' is not a group name"},
        {"r1 ansible_host=192.0.2.1\n[g]\nr[0:1] ansible_host=192.0.2.2\n",
         "3: r1 has ansible_host=192.0.2.2 here and ansible_host=192.0.2.1 at @:1: a host has one address"},
    };
    for (const auto& row : rows) {
        inventory inv;
        std::string path;
        kelp::status st = load(row.text, &inv, &path);
        std::string says = row.says;
        if (size_t at = says.find('@'); at != std::string::npos) says.replace(at, 1, path);
        EXPECT_FALSE(st) << row.text.substr(0, 80);
        EXPECT_EQ(st.message.rfind(path + ":", 0), 0u) << st.message;
        EXPECT_NE(st.message.find(says), std::string::npos) << st.message;
    }
}

TEST(Inventory, LimitPatterns) {
    inventory inv;
    ASSERT_TRUE(load(fleet, &inv));
    // hosts empty: an error naming the element
    struct { std::string pattern; const char* hosts; } rows[] = {
        {"", "edge1 edge2 lab-a lab-b r02 r01 r03"}, {"routers", "r02 r01 r03"}, {"emea", "r02 r01 r03"},
        {"r0*", "r02 r01 r03"}, {"edge1:lab", "edge1 lab-a lab-b r02"}, {"routers:!r02", "r01 r03"},
        {"!r02:routers", "r01 r03"}, {"routers:&lab", "r02"}, {"!routers", "edge1 edge2 lab-a lab-b"},
        {"edge1,r01", "edge1 r01"},
        // Subscripts count the group's own order; [A:B] includes B.
        {"routers[0]", "r01"}, {"routers[-1]", "r03"}, {"routers[1:2]", "r02 r03"}, {"lab[1:]", "lab-b r02"},
        {"lab[1:0]", "lab-b"},  // Ansible reads [A:0] as [A]
        {"routers[0:1],edge2", "edge2 r02 r01"},
        // A glob's groups' hosts come before the hosts it names itself.
        {"e*[3]", "edge1"}, {"~r0[13]", "r01 r03"}, {"~lab|edge", "edge1 edge2 lab-a lab-b r02"}, {"nosuch", ""},
        {"routers:&edge*", ""}, {"routers:!nosuch", ""}, {"routers[3]", ""}, {"routers[:2]", ""}, {"~(", ""},
        {"~" + std::string(100000, 'r'), ""},
    };
    for (const auto& row : rows) {
        std::vector<const inventory_host*> chosen;
        kelp::status st = select_hosts(inv, row.pattern, &chosen);
        std::string names;
        for (const inventory_host* h : chosen) names += (names.empty() ? "" : " ") + h->name;
        if (*row.hosts) {
            EXPECT_TRUE(st) << row.pattern << ": " << st.message;
            EXPECT_EQ(names, row.hosts) << row.pattern;
        } else {
            EXPECT_FALSE(st) << row.pattern.substr(0, 80);
        }
    }
}
