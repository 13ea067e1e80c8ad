// kelputil: the operator's tool for kelputild routers, one or a fleet.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <exception>
#include <memory>

#include "cli.h"
#include "connection.h"
#include "device_commands.h"
#include "files.h"
#include "fleet_commands.h"
#include "outcome.h"
#include "helpers.h"

namespace {

outcome run_single(const invocation& inv) {
    host_settings host = command_line_host(inv.conn);
    password_source source = password_source_for(inv.conn, host);
    // Before any connection: a run without a password would only log an
    // authentication failure on the device.
    kelp::status st = check_password_source(source);
    if (!st) return failure(st);
    std::unique_ptr<reporter> r;
    if (inv.output.json) r = std::make_unique<json_reporter>();
    else r = std::make_unique<terminal_reporter>(inv.output.quiet);
    if (inv.conn.plain && !inv.output.quiet)
        r->note("--plain: the password travels in a form anyone who captures this connection can read; "
                "TLS (the default) protects it");
    if (inv.device_command() == "firmware" && inv.flags)
        r->note("--apply and --reboot do nothing after a firmware upload: the upgrade decides");
    kelp::target t = make_target(inv.conn, host, password_provider(source), *r, inv.output.verbose > 0, false);
    return run_device_command(inv, t, host.name, *r);
}

// Bundles are binary: on a terminal they would only scramble it. Refused
// before anything connects, as curl refuses.
bool binary_to_terminal(const invocation& inv) {
    std::string cmd = inv.command;
    bool to_stdout = (cmd == "backup" && inv.file == "-") ||
                     ((cmd == "bundle-pack" || cmd == "bundle-unpack") && inv.out == "-");
    return to_stdout && isatty(1);
}

outcome run(const invocation& inv, char** argv) {
    if (binary_to_terminal(inv))
        return local_failure("binary output can mess up your terminal: redirect it (> FILE) or give a FILE");
    remember_umask();
    remove_temporaries_on_signals();
    if (is_store_command(inv)) return run_store_command(inv, argv);
    if (inv.command == "serve") return run_serve_command(inv, argv);
    if (inv.command.rfind("bundle-", 0) == 0) return run_offline_command(inv);
    if (inv.is_fleet()) return run_fleet(inv);
    return run_single(inv);
}

}  // namespace

// Every command ends here: its outcome printed, its exit status returned.
int main(int argc, char** argv) {
    return run_program("kelputil", [&] {
        invocation inv;
        int end = parse_command_line(argc, argv, &inv);
        if (end >= 0) return end;
        outcome o = run(inv, argv);
        print_outcome(o, inv.output.json, inv.output.quiet);
        return o.exit;
    });
}
