// Every command that talks to one device, and the offline bundle commands.
// They print nothing themselves: what they found comes back as an outcome,
// what happens meanwhile goes to the reporter.
#pragma once

#include <string>
#include <vector>

#include "actions.h"
#include "invocation.h"
#include "outcome.h"
#include "reporter.h"

// The device commands, one step each once connected (commands.h's
// device_step): host names the device in file names ("{host}" in a fleet
// run's FILE).
outcome run_check(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_apply(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_reboot(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_backup(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_restore(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_get_script(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_put_script(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_report(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_ppp(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_hotspot(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_kick_ppp(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_kick_hotspot(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_kick_ip(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_firmware(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);
outcome run_throughput(const invocation& inv, const kelp::target& t, const std::string& host, reporter& r);

// The offline commands.
outcome run_bundle_pack(const invocation& inv);
outcome run_bundle_verify(const invocation& inv);
outcome run_bundle_unpack(const invocation& inv);
// Uploads an image already read; with upgrade, follows the flash upgrade
// and fails (exit 10) when one of its lines reports an error.
outcome upload_image(const kelp::target& t, const kelp::bytes& image, bool upgrade, const std::string& file,
                     reporter& r);

// The folders of a fleet run's per-host files ("dir/{host}.scr",
// "{host}/fw.scr"), made private before any host is contacted: a folder
// that is missing would otherwise fail every host after its session.
kelp::status make_host_folders(const invocation& inv, const std::vector<std::string>& hosts);
// Reads a firmware image, refusing one smaller than any image could be (a
// truncated download) before anything connects.
kelp::status read_image(const std::string& file, kelp::bytes* image);
// The image as plans and summaries show it: {"file", "bytes", "sha256"},
// and as text.
json image_summary(const std::string& file, const kelp::bytes& image);
std::string image_text(const json& summary);

// The mode for files that are not secrets: as the umask allows.
void remember_umask();
