// kelputil: the operator's tool for kelputild routers, one or a fleet.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <memory>

#include "cli.h"
#include "commands.h"
#include "connection.h"
#include "device_commands.h"
#include "files.h"
#include "fleet_commands.h"
#include "helpers.h"
#include "outcome.h"

namespace {

outcome run_single(const invocation& inv) {
    host_settings host = command_line_host(inv.conn);
    password_source source = password_source_for(inv.conn, host);
    // Before any connection: a run without a password would only log an
    // authentication failure on the device.
    kelp::status st = check_password_source(source);
    if (!st) return failure(st);
    std::unique_ptr<reporter> r;
    if (inv.output.json)
        r = std::make_unique<json_reporter>();
    else
        r = std::make_unique<terminal_reporter>(inv.output.quiet);
    if (inv.conn.plain && !inv.output.quiet)
        r->note(
            "--plain: the password travels in a form anyone who captures this connection can read; "
            "TLS (the default) protects it");
    if (inv.device_command() == "firmware" && inv.flags)
        r->note("--apply and --reboot do nothing after a firmware upload: the upgrade decides");
    kelp::target t = make_target(inv.conn, host, password_provider(source), *r, inv.output.verbose > 0, false);
    return inv.row->on_device(inv, t, host.name, *r);
}

// Bundles are binary: on a terminal they would only scramble it. Refused
// before anything connects, as curl refuses.
bool binary_to_terminal(const invocation& inv) {
    for (const argument& a : inv.row->arguments)
        if (a.binary_stdout && inv.args.*std::get<std::string command_args::*>(a.field) == "-") return isatty(1);
    return false;
}

// The command as its row in the command table says: in a helper program,
// offline, on every host of a fleet, or on the one device.
outcome run(const invocation& inv, char** argv) {
    const command_row& c = *inv.row;
    if (binary_to_terminal(inv))
        return local_failure("binary output can mess up your terminal: redirect it (> FILE) or give a FILE");
    remember_umask();
    remove_temporaries_on_signals();
    if (c.helper) return run_helper(c.helper, inv.command, argv);
    if (inv.is_fleet()) return c.fleet_run ? c.fleet_run(inv) : run_fleet(inv);
    if (c.run) return c.run(inv);
    return run_single(inv);
}

}  // namespace

// Every command ends here: its outcome printed, its exit status returned.
int main(int argc, char** argv) {
    return run_program("kelputil", [&] {
        invocation inv;
        std::optional<outcome> end = parse_command_line(argc, argv, &inv);
        outcome o = end ? *end : run(inv, argv);
        print_outcome(o, inv.output.json, inv.output.quiet);
        return o.exit;
    });
}
