#include "host_snapshot.h"

#include <sys/stat.h>

#include "archive_members.h"
#include "bundle.h"
#include "files.h"
#include "scripts.h"

using kelp::bytes;
using kelp::error_kind;
using kelp::status;

std::vector<std::string> kept_from_last(bool scripts) {
    return scripts ? std::vector<std::string>{} : std::vector<std::string>{"scripts"};
}

status take_snapshot(const kelp::target& t, const std::string& folder, bool scripts, host_snapshot* out) {
    auto written = [&](status s) {
        out->disk_failure = !s && s.kind == error_kind::local && is_disk_error(s.code);
        return s;
    };
    out->disk_failure = false;
    bytes bundle, plain;
    status st = kelp::backup_config(t, 0, &bundle);
    if (!st) return st;
    if (!(st = kelp::unpack_bundle(bundle, &plain)))
        return kelp::fail(error_kind::protocol, "the device sent a bundle that does not verify: " + st.message);
    out->config_bytes = plain.size();
    if (!(st = written(write_new_file(folder + "/config.dat", bundle, 0600)))) return st;
    bundle = bytes();  // a host's data is written out, not kept
    bool is_archive = false;
    if (!(st = written(extract_members(plain, folder + "/config", &is_archive)))) return st;
    if (!is_archive && !(st = written(write_new_file(folder + "/config.plain", plain, 0600)))) return st;
    if (!scripts) return st;
    if (mkdir((folder + "/scripts").c_str(), 0700) != 0) return written(kelp::cannot("create", folder + "/scripts"));
    for (const script_entry& script : script_table) {
        bytes body;
        st = kelp::get_script(t, script.number, 0, &body);
        if (kelp::is_missing_script(st)) continue;
        if (!st) return kelp::fail(st.kind, std::string("script ") + script.word + ": " + st.message);
        if (!(st = written(write_new_file(folder + "/scripts/" + script.file, body, 0600)))) return st;
    }
    return st;
}
