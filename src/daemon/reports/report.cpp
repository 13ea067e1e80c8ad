#include "reports/report.h"

#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "core/client_log.h"
#include "core/process_exit.h"
#include "core/replies.h"
#include "protocol.h"
#include "transfer/frames.h"

struct report_section {
    const char* banner;  // 61 bytes with its newline
    const char* heading;
    const char* command;
    const char* after;  // the settled, uneven spacing between sections
};

static const report_section sysinfo_sections[] = {
    {"---[ Software Version ]-------------------------------------\n", nullptr, "show-version", "\n"},
    {"---[ System Load Average ]----------------------------------\n", " 1    5    15   (in minutes)\n",
     "cat /proc/loadavg | cut -f1,2,3 -d \" \"", "\n"},
    {"---[ Active Devices ]---------------------------------------\n", nullptr, "ip addr show", "\n"},
    {"---[ Device Stats ]-----------------------------------------\n", nullptr, "ifconfig", "\n"},
    {"---[ Routing Table ]----------------------------------------\n", nullptr, "ip route show", "\n\n"},
    {"---[ ARP Table ]--------------------------------------------\n", nullptr, "ip neigh show", "\n\n"},
    {"---[ IRQ Information ]--------------------------------------\n", nullptr, "cat /proc/interrupts", "\n\n"},
    {"---[ I/O Memory Information ]-------------------------------\n", nullptr, "cat /proc/iomem", "\n\n"},
    {"---[ I/O Port Information ]---------------------------------\n", nullptr, "cat /proc/ioports", "\n\n"},
    {"---[ CPU Information ]--------------------------------------\n", nullptr, "cat /proc/cpuinfo", "\n"},
    {"---[ Firewall chains ]--------------------------------------\n", nullptr, "iptables -L -v -n -x", "\n\n"},
    {"---[ NAT chains ]-------------------------------------------\n", nullptr, "iptables -t nat -L -v -n -x", "\n\n"},
    {"---[ MANGLE chains ]----------------------------------------\n", nullptr, "iptables -t mangle -L -v -n -x",
     "\n\n"},
};

static const char kernlog_banner[] = "---[ Kernel Message Log ]-----------------------------------\n";
static const char end_line[] = "---[ End of report ]---\n";

static void put_text(FILE* report, const char* text) { fwrite(text, 1, strlen(text), report); }

int append_command_output(const char* command, FILE* report) {
    FILE* pipe = popen(command, "r");
    if (!pipe) {
        put_text(report, "Unable to retrieve stats\n");
        return 0;
    }
    char chunk[1024];
    while (fgets(chunk, sizeof chunk, pipe)) {
        char* newline = strchr(chunk, '\n');
        if (newline) *newline = '\0';
        fprintf(report, "%s\n", chunk);
    }
    pclose(pipe);  // reaps the child; its status is not looked at
    return 1;
}

// Fills path first so that the caller can clean up even when creation fails.
static FILE* open_report(char* path) {
    path[0] = '\0';
    snprintf(path, 24, "/tmp/netrep.%d", (int)getpid());
    return fopen(path, "w");
}

int make_sysinfo_report(char* path) {
    FILE* report = open_report(path);
    if (!report) return 1;
    for (const report_section& s : sysinfo_sections) {
        put_text(report, s.banner);
        if (s.heading) put_text(report, s.heading);
        append_command_output(s.command, report);
        put_text(report, s.after);
    }
    put_text(report, end_line);
    fclose(report);
    return 0;
}

int make_core_sysinfo_report(char* path) {
    FILE* report = open_report(path);
    if (!report) return 1;
    append_command_output("show-sysinfo", report);
    fclose(report);
    return 0;
}

int make_kernlog_report(char* path) {
    FILE* report = open_report(path);
    if (!report) return 1;
    put_text(report, kernlog_banner);
    append_command_output("logread", report);
    put_text(report, end_line);
    fclose(report);
    return 0;
}

int send_report(int fd, int action) {
    char path[24];
    if (action == action_sysinfo) {
        log_client(LOG_INFO, "sysinfo sent to client");
        make_sysinfo_report(path);
    } else if (action == action_kernlog) {
        log_client(LOG_INFO, "kernlog sent to client");
        make_kernlog_report(path);
    } else {
        log_client(LOG_INFO, "core sysinfo sent to client");
        make_core_sysinfo_report(path);
    }
    bool sent = send_ready(fd, path) && send_file(fd, path);
    unlink(path);
    if (!sent) end_process(1);
    return code_ok;
}
