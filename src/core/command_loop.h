// The command loop: one command at a time from the companion service.
#pragma once

#include <string>

// Thread body.
void messageHandler();
// Fetch and dispatch until exitRequested is set.
void vd_service_handler();
// Runs one command text as the loop does (the proxy is used for "config_set:").
class Ivd_service;
void dispatchCommand(const std::string& command, Ivd_service& service);
