// The API's answers, one function per route: each finds the host, checks
// the query and reads the state or the repository.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "http_server.h"
#include "service.h"

void answer(http_answer& res, int status, const nlohmann::json& body);
void answer_error(http_answer& res, int status, const std::string& message);

void get_healthz(service& s, const http_request& req, http_answer& res);
void get_metrics(service& s, const http_request& req, http_answer& res);
void get_hosts(service& s, const http_request& req, http_answer& res);
void get_host(service& s, const http_request& req, http_answer& res);
void get_diff(service& s, const http_request& req, http_answer& res);
void get_file_list(service& s, const http_request& req, http_answer& res);
void get_file(service& s, const http_request& req, http_answer& res);
void post_backup(service& s, const http_request& req, http_answer& res);
void get_search(service& s, const http_request& req, http_answer& res);
void get_attempts(service& s, const http_request& req, http_answer& res);
void get_changes(service& s, const http_request& req, http_answer& res);
// The operator's web page: its files, built into the program.
void get_page_file(service& s, const http_request& req, http_answer& res);

// A host's state as the API shows it, at now (wall time).
nlohmann::json host_json(const host_state& h, double now, double interval);
