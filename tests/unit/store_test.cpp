// The backup repository against the git program: what a commit does when
// someone else moved the branch meanwhile.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include "files.h"
#include "git_store.h"

namespace {

std::string sh(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    for (int c; p && (c = fgetc(p)) != EOF;) out += (char)c;
    if (p) pclose(p);
    return out;
}

struct scratch {
    std::string dir;
    scratch() {
        char name[] = "/tmp/kelputil-store-XXXXXX";
        dir = mkdtemp(name);
    }
    ~scratch() { remove_tree(dir); }
    // A host's staged folder holding one file.
    std::string staged(const std::string& text) {
        std::string folder = dir + "/staged";
        sh("mkdir -p " + folder + " && printf '" + text + "' > " + folder + "/config.dat");
        return folder;
    }
};

const std::string git = "git -c user.name=other -c user.email=other@localhost -C ";

// Another program commits between the commit's reading of the branch and
// its moving it (the message is asked for in between): its commit stays,
// this one is not added, and the work tree is its last commit's.
TEST(store, a_branch_moved_meanwhile_keeps_its_commit) {
    for (bool first : {true, false}) {
        scratch s;
        std::unique_ptr<git_store> store;
        std::string bk = s.dir + "/bk";
        std::vector<std::string> changed;
        std::string commit;
        ASSERT_TRUE(git_store::open(bk, true, false, &store));
        auto plain = [](const std::vector<std::string>&) { return std::string("mine\n"); };
        if (!first) {
            ASSERT_TRUE(store->commit_staged({{"h", s.staged("one")}}, {}, plain, &changed, &commit));
        }
        auto meanwhile = [&](const std::vector<std::string>&) {
            sh(git + bk + " commit -q --allow-empty -m other");
            return std::string("lost\n");
        };
        kelp::status st = store->commit_staged({{"h", s.staged("two")}}, {}, meanwhile, &changed, &commit);
        EXPECT_FALSE(st);
        EXPECT_NE(st.message.find("moved while this backup was made"), std::string::npos) << st.message;
        EXPECT_EQ(sh(git + bk + " log --format=%s"), first ? "other\n" : "other\nmine\n");
        EXPECT_EQ(sh(git + bk + " status --porcelain") + sh(git + bk + " fsck --no-dangling 2>&1"), "");
    }
}

}  // namespace
