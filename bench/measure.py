#!/usr/bin/python3
"""Measuring helper for bench/run.sh.

  measure.py pair RAW FIG [--count N] [--port P] [--server CMD] --client CMD
             [--from-server] [--bytes N] [--round R]
      Starts CMD --server pinned to the last core, waits until it listens on
      P (read from /proc/net, never by connecting: the daemon serves exactly
      one connection), then runs --client pinned to core 0. One JSON record
      per run goes to RAW: wall time (from the client's start, or from the
      server's with --from-server), CPU time and peak RSS of each side (their
      waited-for children included), with --rss the server's peak resident
      size (its helpers' too), and throughput when the client prints
      kelputil's or iperf3's JSON. --round tags the record, so that runs
      of one round can be set against each other.
  measure.py put RAW FIG METRIC VALUE
  measure.py strace RAW FIG FILE BYTES      successful syscalls per 1462-byte frame
  measure.py gbench RAW FILE                Google Benchmark JSON -> MB/s
  measure.py table RAW OUT.json             medians, ratios, the table
"""
import json
import os
import select
import shlex
import socket
import statistics
import struct
import sys
import time

FRAME = 1462
RUN_LIMIT = 300  # seconds any one command may take


def record(raw, rec):
    with open(raw, "a") as f:
        f.write(json.dumps(rec) + "\n")


def pin(core):
    n = os.cpu_count() or 1
    os.sched_setaffinity(0, {min(core, n - 1)})


def spawn(argv, out_path, stdin_fd=None):
    fd = os.open(out_path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    null = os.open("/dev/null", os.O_RDONLY)
    try:
        return os.posix_spawnp(argv[0], argv, os.environ,
                               file_actions=[(os.POSIX_SPAWN_DUP2, null if stdin_fd is None else stdin_fd, 0),
                                             (os.POSIX_SPAWN_DUP2, fd, 1),
                                             (os.POSIX_SPAWN_DUP2, fd, 2)])
    finally:
        os.close(fd)
        os.close(null)


def reap(pid, deadline):
    """Waits for pid until deadline; kills it (only it) past that."""
    pfd = os.pidfd_open(pid)
    try:
        ready, _, _ = select.select([pfd], [], [], max(0.0, deadline - time.monotonic()))
        if not ready:
            os.kill(pid, 9)
    finally:
        os.close(pfd)
    _, status, ru = os.wait4(pid, 0)
    # No ru_maxrss: a child spawned from here starts out as a copy of this
    # interpreter, whose resident size it keeps as its high-water mark.
    return {"rc": os.waitstatus_to_exitcode(status), "cpu_ms": (ru.ru_utime + ru.ru_stime) * 1e3,
            "timed_out": not ready}


def listening(port):
    """Asks the kernel (sock_diag) for listening TCP sockets on port.
    /proc/net/tcp walks the whole connection table: about 10 ms a read."""
    sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 4)  # NETLINK_SOCK_DIAG
    try:
        for family in (socket.AF_INET, socket.AF_INET6):
            # inet_diag_req_v2: family, protocol, ext, pad, states, then a zero socket id.
            req = struct.pack("=BBBxI", family, socket.IPPROTO_TCP, 0, 1 << 10) + bytes(48)
            # nlmsghdr: SOCK_DIAG_BY_FAMILY, NLM_F_REQUEST | NLM_F_DUMP
            sock.send(struct.pack("=IHHII", 16 + len(req), 20, 0x301, 1, 0) + req)
            done = False
            while not done:
                data = sock.recv(65536)
                off = 0
                while off + 16 <= len(data):
                    length, kind = struct.unpack_from("=IH", data, off)
                    if kind in (2, 3):  # NLMSG_ERROR, NLMSG_DONE
                        done = True
                        break
                    if struct.unpack_from("!H", data, off + 16 + 4)[0] == port:
                        return True
                    off += (length + 3) & ~3
    finally:
        sock.close()
    return False


def wait_listener(port, pid, limit=10.0):
    end = time.monotonic() + limit
    while time.monotonic() < end:
        if listening(port):
            return True
        if os.waitpid(pid, os.WNOHANG)[0]:
            return False
        time.sleep(0.0001)
    return False


def throughput(text):
    # kelputil prints JSON lines (one per second) and its result last.
    lines = [l for l in text.splitlines() if l.startswith("{")]
    try:
        d = json.loads(lines[-1] if lines and "iperf" not in text[:200] else text)
    except (ValueError, IndexError):
        return None
    if isinstance(d.get("data"), dict) and "summary" in d["data"]:
        return d["data"]["summary"]["mbit_per_s"]
    try:
        return d["end"]["sum_received"]["bits_per_second"] / 1e6
    except (KeyError, TypeError):
        return None


def pair(args):
    raw, fig = args[0], args[1]
    opts = {"--count": "1", "--port": "0", "--server": "", "--client": "", "--bytes": "0", "--round": ""}
    from_server = rss = False
    i = 2
    while i < len(args):
        if args[i] == "--from-server":
            from_server = True
            i += 1
        elif args[i] == "--rss":
            rss = True
            i += 1
        else:
            opts[args[i]] = args[i + 1]
            i += 2
    server, client = shlex.split(opts["--server"]), shlex.split(opts["--client"])
    work = os.environ.get("BENCH_WORK", "/tmp")
    if rss:  # GNU time forks from a small process: its %M is the server's own peak
        server = ["/usr/bin/time", "-f", "%M", "-o", work + "/rss"] + server
    failures = 0
    for _ in range(int(opts["--count"])):
        rec = {"fig": fig}
        if opts["--round"]:
            rec["round"] = int(opts["--round"])
        t0 = time.monotonic()
        spid = None
        if server:
            pin(1)
            # A server's stdin stays open until it ends: openssl s_server
            # quits at end of input.
            stdin_r, stdin_w = os.pipe()
            os.set_inheritable(stdin_w, False)
            spid = spawn(server, work + "/server.out", stdin_r)
            os.close(stdin_r)
            pin(0)  # not to compete with the server while polling
            if not wait_listener(int(opts["--port"]), spid):
                try:
                    os.kill(spid, 9)
                    os.waitpid(spid, 0)
                except (ProcessLookupError, ChildProcessError):
                    pass  # it had already ended
                sys.exit("%s: the server never listened: %s" % (fig, open(work + "/server.out").read()[-500:]))
        pin(0)
        t1 = time.monotonic()
        cpid = spawn(client, work + "/client.out")
        deadline = t1 + RUN_LIMIT
        rec["client"] = reap(cpid, deadline)
        if spid:
            grace = 30 if rec["client"]["rc"] == 0 else 1
            rec["server"] = reap(spid, time.monotonic() + grace)
            os.close(stdin_w)
        rec["wall_ms"] = (time.monotonic() - (t0 if from_server else t1)) * 1e3
        if rss:
            rec["rss_kb"] = int(open(work + "/rss").read().split()[-1])
        out = open(work + "/client.out", errors="replace").read()
        mbit = throughput(out)
        if mbit is not None:
            rec["mbit"] = mbit
        if int(opts["--bytes"]):
            rec["mbps"] = int(opts["--bytes"]) / (rec["wall_ms"] / 1e3) / 1e6
        if rec["client"]["rc"] != 0:
            failures += 1
            print("%s: client exit %d: %s" % (fig, rec["client"]["rc"], out[-300:]), file=sys.stderr)
            if failures > 3:
                sys.exit("%s: too many failures" % fig)
            continue
        record(raw, rec)


def strace_calls(args):
    raw, fig, path, nbytes = args[0], args[1], args[2], int(args[3])
    calls, top = 0, []
    for line in open(path):
        f = line.split()
        # Failed calls are left out: socat polls an internal descriptor with
        # a recvfrom that fails with EAGAIN several times per block.
        if len(f) >= 5 and f[3].isdigit():
            n = int(f[3]) - (int(f[4]) if len(f) == 6 else 0)
            if f[-1] == "total":
                calls = n
            else:
                top.append((n, f[-1]))
    top.sort(reverse=True)
    record(raw, {"fig": fig, "per_frame": calls * FRAME / nbytes,
                 "top": ", ".join("%s %d" % (n, c) for c, n in top[:4])})


def gbench(args):
    raw, path = args[0], args[1]
    for b in json.load(open(path))["benchmarks"]:
        if b.get("run_type") == "iteration" and "bytes_per_second" in b:
            record(raw, {"fig": "gb_" + b["run_name"].split("/")[0], "mbps": b["bytes_per_second"] / 1e6})


def metric(recs, fig, m):
    vals = []
    for r in recs:
        if r["fig"] != fig:
            continue
        cpu = sum(r[s]["cpu_ms"] for s in ("server", "client") if s in r)
        if m == "cpu_ms":
            v = cpu
        elif m == "mbit_per_cpu":  # less sensitive to other load than Mbit/s
            v = r["mbit"] * r["wall_ms"] / cpu if "mbit" in r and cpu else None
        else:
            v = r.get(m)
        if v is not None:
            vals.append(v)
    return statistics.median(vals) if vals else None


def round_value(r, m):
    if m == "cpu_ms":
        return sum(r[s]["cpu_ms"] for s in ("server", "client") if s in r)
    return r.get(m)


def rounds(recs, figs, m):
    """Per round that has every one of figs: {fig: value}."""
    by_round = {}
    for r in recs:
        v = round_value(r, m)
        if "round" in r and v is not None and r["fig"] in figs:
            by_round.setdefault(r["round"], {})[r["fig"]] = v
    return [v for v in by_round.values() if len(v) == len(figs)]


def round_sums(recs, figs, m):
    return [sum(v.values()) for v in rounds(recs, figs, m)]


def paired_ratios(recs, fig, base_figs, m):
    """Each round's ours / baseline: they ran back to back on the same machine.
    A baseline of several figures is their sum in that round."""
    base_figs = (base_figs,) if isinstance(base_figs, str) else base_figs
    pairs = ((v[fig], sum(v[b] for b in base_figs)) for v in rounds(recs, (fig,) + base_figs, m))
    return sorted(ours / base for ours, base in pairs if base)


def fmt(v):
    if v is None:
        return "n/a"
    if abs(v) >= 100:
        return "%.0f" % v
    return "%.3g" % v


def table(args):
    recs = [json.loads(line) for line in open(args[0])]
    get = lambda fig, m: metric(recs, fig, m)
    combined = None
    md5, rc4 = get("ossl_md5", "mbps"), get("ossl_rc4", "mbps")
    if md5 and rc4:
        combined = 1 / (1 / md5 + 1 / rc4)
    # label, ours, baseline value, baseline name, ratio style, goal (op, bound)
    rows = []
    for d, what in (("rx", "device sends"), ("tx", "device receives")):
        rows.append(("Throughput %s (%s), --window 64K, Mbit/s" % (d, what), get("thr_%s_ours" % d, "mbit"),
                     get("thr_%s_iperf_w" % d, "mbit"), "iperf3 -w 64K -l 128K", "pct", (">=", 0.90),
                     paired_ratios(recs, "thr_%s_ours" % d, "thr_%s_iperf_w" % d, "mbit")))
        if d == "tx":
            rows.append(("  iperf3 with the device's own buffer size", get("thr_tx_ours", "mbit"),
                         get("thr_tx_iperf_d", "mbit"), "iperf3 -w 65535 -l 128K", "pct", None,
                         paired_ratios(recs, "thr_tx_ours", "thr_tx_iperf_d", "mbit")))
        rows.append(("  both with the kernel's buffers", get("thr_%s_ours_auto" % d, "mbit"),
                     get("thr_%s_iperf" % d, "mbit"), "iperf3", "pct", None,
                     paired_ratios(recs, "thr_%s_ours_auto" % d, "thr_%s_iperf" % d, "mbit")))
        rows.append(("  Mbit per CPU-second, both sides", get("thr_%s_ours" % d, "mbit_per_cpu"),
                     get("thr_%s_iperf_w" % d, "mbit_per_cpu"), "iperf3 -w 64K -l 128K", "pct", None))
    # The upload's floor: socat's copy plus the router's own steps, each round's sum.
    floor = ("fw_socat", "fw_fixed")
    floor_of = lambda m: statistics.median(sums) if (sums := round_sums(recs, floor, m)) else None
    rows.append(("Firmware upload 32 MiB, wall ms", get("fw_ours", "wall_ms"), floor_of("wall_ms"),
                 "the floor: socat copy + the router's fixed steps", "x", ("<=", 1.30),
                 paired_ratios(recs, "fw_ours", floor, "wall_ms")))
    rows.append(("  against socat's copy alone", get("fw_ours", "wall_ms"), get("fw_socat", "wall_ms"), "socat copy",
                 "x", None, paired_ratios(recs, "fw_ours", "fw_socat", "wall_ms")))
    rows.append(("  the router's fixed steps (probe, syncs), wall ms", get("fw_fixed", "wall_ms"), floor_of("wall_ms"),
                 "the floor", "pct", None, paired_ratios(recs, "fw_fixed", floor, "wall_ms")))
    rows.append(("  CPU ms (both sides)", get("fw_ours", "cpu_ms"), floor_of("cpu_ms"), "the floor's CPU", "x", None,
                 paired_ratios(recs, "fw_ours", floor, "cpu_ms")))
    for fig in ("fw", "backup"):
        if fig == "backup":
            rows.append(("Backup 512 KiB, wall ms", get("backup_ours", "wall_ms"), get("backup_socat", "wall_ms"),
                         "socat copy", "x", None))
            rows.append(("Backup 512 KiB, CPU ms (both sides)", get("backup_ours", "cpu_ms"),
                         get("backup_socat", "cpu_ms"), "socat copy", "x", None))
        for side, base in (("daemon", "receiver" if fig == "fw" else "sender"),
                           ("client", "sender" if fig == "fw" else "receiver")):
            rows.append(("  successful syscalls per 1462 B, %s" % side, get("st_%s_%s" % (fig, side), "per_frame"),
                         get("st_%s_socat_%s" % (fig, base), "per_frame"), "socat " + base, "x", None))
    hosts = get("fleet_hosts", "count")
    if hosts:
        label = "Fleet backup of %d routers, -j 32, wall s" % hosts
        rows.append((label, get("fleet_run", "wall_s"), get("fleet_run", "floor_s"),
                     "the floor: all CPU s / cores", "x", ("<=", 1.25)))
        rows.append(("  the same backups one by one, wall s", get("fleet_loop", "wall_s"), get("fleet_run", "wall_s"),
                     "the fleet run", "x", None))
        rows.append(("  kelputil peak RSS, KiB", get("fleet_run", "rss_kib"), get("fleet_ten", "rss_kib"),
                     "10 routers", "x", ("<=", 1.5)))
    served = get("serve_hosts", "count")
    if served:
        interval = get("serve", "interval_s")
        rows.append(("kelputil serve, %d routers at --interval %ds: worst schedule lag, s" % (served, interval),
                     get("serve", "lag_s"), interval, "the interval", "pct", ("<=", 0.10)))
        rows.append(("  its peak RSS, KiB", get("serve", "rss_kib"), 64 * 1024, "64 MiB", "x", ("<=", 1.0)))
        rows.append(("  its CPU per backup in a later interval without API reads, ms",
                     get("serve", "cpu_ms_per_backup"), get("fleet_run", "cpu_ms_per_backup"),
                     "kelputil in the fleet run", "x", ("<=", 1.5)))
        rows.append(("  the same in the first interval (first commits, model and firmware), ms",
                     get("serve", "cpu_ms_first_interval"), get("fleet_run", "cpu_ms_per_backup"),
                     "kelputil in the fleet run", "x", None))
        rows.append(("  GET /api/v1/hosts, 99th percentile, ms", get("serve", "hosts_p99_ms"), 50, "50 ms", "x",
                     ("<=", 1.0)))
        rows.append(("  GET /metrics, 99th percentile, ms", get("serve", "metrics_p99_ms"), 50, "50 ms", "x",
                     ("<=", 1.0)))
        rows.append(("  GET /healthz with 64 clients waiting on a silent router, 99th percentile, ms",
                     get("serve", "healthz_waiting_p99_ms"), 100, "100 ms", "x", ("<=", 1.0)))
    rows.append(("Session plain (start..exit), ms", get("sess_plain", "wall_ms"), get("sess_true", "wall_ms"),
                 "/bin/true", "x", None))
    rows.append(("Session TLS (start..exit), ms", get("sess_tls", "wall_ms"), get("sess_openssl", "wall_ms"),
                 "openssl s_server+s_client", "x", None))
    big, small = get("mem_fw", "rss_kb"), get("mem_fw1", "rss_kb")
    rows.append(("Peak RSS daemon, 32 MiB upload, KiB", big, small, "same, 1 MiB upload", "x", None))
    # Buffering the image would add its 31 MiB; a few pages either way are noise.
    rows.append(("  growth from 1 to 32 MiB, KiB", big - small if big and small else None, 31 * 1024,
                 "the extra file size", "pct", ("<=", 0.01)))
    rows.append(("Peak RSS daemon, TLS login, KiB", get("mem_tls", "rss_kb"),
                 get("mem_openssl", "rss_kb"), "openssl s_server", "x", None))
    rows.append(("Peak RSS daemon, plain login, KiB", get("mem_plain", "rss_kb"),
                 get("mem_socat", "rss_kb"), "socat receiving 32 MiB", "x", None))
    rows.append(("Daemon stripped size, KiB", get("size_daemon", "kib"), None, "", "x", None))
    rows.append(("Bundle build 512 KiB, MB/s", get("gb_BM_build_bundle", "mbps"), combined,
                 "openssl md5 + rc4", "pct", None))
    rows.append(("Bundle verify 512 KiB, MB/s", get("gb_BM_verify_bundle", "mbps"), combined,
                 "openssl md5 + rc4", "pct", None))
    rows.append(("  MD5, MB/s", get("gb_BM_md5", "mbps"), md5, "openssl md5", "pct", None))
    rows.append(("  RC4, MB/s", get("gb_BM_rc4", "mbps"), rc4, "openssl enc -rc4", "pct", None))

    out = []
    lines = ["| figure | ours | baseline | ratio | goal |", "|---|---:|---:|---:|---|"]
    for label, ours, base, base_name, style, goal, *paired in rows:
        pairs = paired[0] if paired else []
        # Paired runs: the median of their ratios, not the ratio of medians.
        ratio = statistics.median(pairs) if pairs else ours / base if ours is not None and base else None
        rtext = "" if ratio is None else ("%.0f%%" % (ratio * 100) if style == "pct" else "%.2fx" % ratio)
        if pairs and style == "pct":
            rtext += " (%.0f-%.0f%%, %d pairs)" % (pairs[0] * 100, pairs[-1] * 100, len(pairs))
        elif pairs:
            rtext += " (%.2f-%.2fx, %d pairs)" % (pairs[0], pairs[-1], len(pairs))
        gtext = ""
        met = None
        if goal and ratio is not None:
            met = ratio >= goal[1] if goal[0] == ">=" else ratio <= goal[1]
            bound = "%.0f%%" % (goal[1] * 100) if style == "pct" else "%.2fx" % goal[1]
            gtext = "%s %s: %s" % ("≥" if goal[0] == ">=" else "≤", bound, "met" if met else "MISSED")
            if pairs:
                held = sum(1 for p in pairs if (p >= goal[1] if goal[0] == ">=" else p <= goal[1]))
                gtext += " (%d of %d pairs)" % (held, len(pairs))
            if style == "pct" and goal[1] < 0.1:
                rtext, gtext = ("%.1f%%" % (ratio * 100),
                                gtext.replace("%.0f%%" % (goal[1] * 100), "%g%%" % (goal[1] * 100)))
        btext = "" if base is None else "%s (%s)" % (fmt(base), base_name)
        lines.append("| %s | %s | %s | %s | %s |" % (
            label.strip() if not label.startswith("  ") else "↳ " + label.strip(), fmt(ours), btext, rtext, gtext))
        out.append({"figure": label.strip(), "ours": ours, "baseline": base, "baseline_tool": base_name,
                    "ratio": ratio, "pair_ratios": pairs, "goal_met": met})
    notes = sorted({"%s: %s" % (r["fig"], r["top"]) for r in recs if "top" in r})
    loads = [r["load"] for r in recs if "load" in r]
    json.dump({"rows": out, "top_syscalls": notes, "load_average_1min": loads,
               "settings": {k: os.environ.get(k) for k in ("BENCH_REPEAT", "BENCH_THR_REPEAT", "BENCH_THR_SECONDS",
                                                                 "BENCH_FW_REPEAT", "BENCH_SESSIONS")}},
              open(args[1], "w"), indent=1)
    print("\n".join(lines))
    print("\nMost frequent system calls (strace -c, one run):")
    print("\n".join("  " + n for n in notes))
    if loads:
        print("Load average (1 min) at start and end: %s on %d cores" % (" / ".join("%.2f" % x for x in loads),
                                                                        os.cpu_count()))


def main():
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == "pair":
        pair(args)
    elif cmd == "put":
        record(args[0], {"fig": args[1], args[2]: float(args[3])})
    elif cmd == "strace":
        strace_calls(args)
    elif cmd == "gbench":
        gbench(args)
    elif cmd == "table":
        table(args)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
