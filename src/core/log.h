// Every log line of the daemon goes through vdLog: tag "vigild", priorities 3 (debug,
// written only while the debug switch is on), 4 (info) and 6 (error, always written).
#pragma once

constexpr int kLogDebug = 3;
constexpr int kLogInfo = 4;
constexpr int kLogError = 6;

void vdLog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

#define LOGD(...) vdLog(kLogDebug, __VA_ARGS__)
#define LOGI(...) vdLog(kLogInfo, __VA_ARGS__)
#define LOGE(...) vdLog(kLogError, __VA_ARGS__)
