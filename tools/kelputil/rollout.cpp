#include "rollout.h"

#include <algorithm>

#include "clock.h"
#include "device_commands.h"
#include "files.h"
#include "net.h"
#include "retry.h"

using kelp::bytes;
using kelp::status;

namespace {

constexpr int settle_pause_ms = 500;

using stage = std::vector<const inventory_host*>;

// Canaries one at a time, then batches.
std::vector<stage> plan(const invocation& inv, const std::vector<const inventory_host*>& hosts) {
    std::vector<stage> stages;
    size_t i = 0;
    for (; i < hosts.size() && i < (size_t)inv.args.canary; i++) stages.push_back({hosts[i]});
    while (i < hosts.size()) {
        stage s;
        for (; i < hosts.size() && s.size() < (size_t)inv.args.batch; i++) s.push_back(hosts[i]);
        stages.push_back(s);
    }
    return stages;
}

json names(const stage& s) {
    json out = json::array();
    for (const inventory_host* h : s) out.push_back(h->name);
    return out;
}

outcome show_plan(const invocation& inv, const std::vector<stage>& stages, const json& image) {
    json canary = json::array(), batches = json::array();
    std::string text = "image " + image_text(image) + "\n";
    int batch = 0;
    for (size_t i = 0; i < stages.size(); i++) {
        bool is_canary = i < (size_t)inv.args.canary;
        if (is_canary)
            canary.push_back(stages[i][0]->name);
        else
            batches.push_back(names(stages[i]));
        text += is_canary ? "canary " + std::to_string(i + 1) + ":" : "batch " + std::to_string(++batch) + ":";
        for (const inventory_host* h : stages[i]) text += " " + h->name;
        text += "\n";
    }
    outcome o = success("plan only (--dry-run): nothing was touched",
                        {{"image", image}, {"canary", canary}, {"batches", batches}});
    o.text = text;
    return o;
}

// After its upgrade a device reboots: it is back once it takes a login again.
status wait_until_back(const kelp::target& t, int settle_ms, double* seconds) {
    long long start = kelp::monotonic_ms(), deadline = start + settle_ms;
    status last;
    for (;;) {
        kelp::target probe = t;
        probe.deadline_ms = deadline;
        probe.log = nullptr;
        last = kelp::trigger(probe, 0);
        if (last) {
            *seconds = (kelp::monotonic_ms() - start) / 1000.0;
            return last;
        }
        // Answered, but not as before: that is no reboot to wait out.
        if (last.kind == kelp::error_kind::refused_password || last.kind == kelp::error_kind::certificate) return last;
        if (!kelp::pause_within(settle_pause_ms, deadline)) break;
    }
    return kelp::fail(kelp::error_kind::timed_out, "did not take a login again within " +
                                                       kelp::seconds_text(settle_ms / 1000.0) +
                                                       " of its upgrade (last: " + last.message + ")");
}

outcome upgrade_host(const invocation& inv, const bytes& image, const kelp::target& t) {
    reporter quiet;
    outcome o = upload_image(t, image, true, inv.args.file, quiet);
    if (!o.ok()) return o;
    json data = o.data;
    status st;
    double back_after = 0;
    if (!(st = wait_until_back(t, inv.args.settle_ms, &back_after))) return failure(st, data);
    bytes report;
    if (!(st = kelp::fetch_report(t, action_core_sysinfo, 0, &report)))
        return failure(kelp::fail(st.kind, "after the upgrade: " + st.message), data);
    std::string text(report.begin(), report.end()), first = text.substr(0, text.find('\n'));
    data["back_after_s"] = back_after;
    data["report"] = json_lines(text);
    return success("upgraded, back after " + kelp::seconds_text(back_after) + (first.empty() ? "" : ": " + first),
                   data);
}

}  // namespace

outcome run_rollout(const invocation& inv, fleet_runner& runner, const std::vector<const inventory_host*>& hosts) {
    // The image first: a missing or truncated one stops the roll-out before
    // anyone is asked for a password; the plan needs no password at all.
    bytes image;
    status st = read_image(inv.args.file, &image);
    if (st && !inv.args.dry_run) st = runner.check_passwords(hosts);
    if (!st) return failure(st);
    json summary = image_summary(inv.args.file, image);
    std::vector<stage> stages = plan(inv, hosts);
    if (inv.args.dry_run) return show_plan(inv, stages, summary);
    std::vector<host_result> results;
    bool halted = false;
    for (const stage& s : stages) {
        if (halted) {
            for (const inventory_host* h : s) {
                host_result r{h->name, local_failure("not touched: the roll-out halted"), 0, false};
                results.push_back(r);
            }
            continue;
        }
        std::vector<host_result> done = runner.run(
            s, [&](const inventory_host&, const kelp::target& t, reporter&) { return upgrade_host(inv, image, t); },
            std::min((int)s.size(), inv.fleet.jobs));
        for (const host_result& r : done) halted = halted || !r.result.ok();
        results.insert(results.end(), done.begin(), done.end());
    }
    return runner.summary(
        results,
        std::string(halted ? "firmware roll-out halted" : "firmware roll-out") + " (" + image_text(summary) + ")",
        {{"halted", halted}, {"image", summary}});
}
