// Writes the page's files as kelputil carries them, for the stand-in
// server of the browser tests: DIR/files/N, DIR/assets.tsv (request path,
// content type, file) and DIR/headers.tsv (name, value).
#include <fstream>
#include <iostream>
#include <string>

#include "web_assets.h"

static void dump(std::ofstream& index, const std::string& dir, const std::string& path, const web_asset& a, int n) {
    const std::string file = "files/" + std::to_string(n);
    std::ofstream(dir + "/" + file, std::ios::binary).write(reinterpret_cast<const char*>(a.data), a.size);
    index << path << '\t' << a.content_type << '\t' << file << '\n';
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: dump_web_assets DIR (DIR/files must exist)\n";
        return 1;
    }
    const std::string dir = argv[1];
    std::ofstream index(dir + "/assets.tsv");
    int n = 0;
    for (const web_asset& a : web_assets()) dump(index, dir, a.path, a, n++);
    if (const web_asset* page = find_web_asset("/")) dump(index, dir, "/", *page, n++);
    std::ofstream headers(dir + "/headers.tsv");
    for (const web_header& h : web_security_headers) headers << h.name << '\t' << h.value << '\n';
    return index && headers ? 0 : 1;
}
