// Text reports (actions 64, 65, 96) built from shell command output.
#pragma once

#include <stdio.h>

int append_command_output(const char* command, FILE* report);
int make_sysinfo_report(char* path);
int make_core_sysinfo_report(char* path);
int make_kernlog_report(char* path);
// Logs, builds the report, sends size packet and file; returns code 1 or
// ends the process.
int send_report(int fd, int action);
