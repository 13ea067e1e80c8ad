// The API's answers, one function per route: each finds the host, checks
// the query and reads the state or the repository.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "serve_service.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

void answer(httplib::Response& res, int status, const nlohmann::json& body);
void answer_error(httplib::Response& res, int status, const std::string& message);

void get_healthz(service& s, const httplib::Request& req, httplib::Response& res);
void get_metrics(service& s, const httplib::Request& req, httplib::Response& res);
void get_hosts(service& s, const httplib::Request& req, httplib::Response& res);
void get_host(service& s, const httplib::Request& req, httplib::Response& res);
void get_diff(service& s, const httplib::Request& req, httplib::Response& res);
void get_file_list(service& s, const httplib::Request& req, httplib::Response& res);
void get_file(service& s, const httplib::Request& req, httplib::Response& res);
void post_backup(service& s, const httplib::Request& req, httplib::Response& res);
void get_search(service& s, const httplib::Request& req, httplib::Response& res);
void get_attempts(service& s, const httplib::Request& req, httplib::Response& res);
void get_changes(service& s, const httplib::Request& req, httplib::Response& res);
// The operator's web page: its files, built into the program.
void get_page_file(service& s, const httplib::Request& req, httplib::Response& res);

// A host's state as the API shows it, at now (wall time).
nlohmann::json host_json(const host_state& h, double now, double interval);
