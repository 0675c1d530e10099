// Restarts "LogcatModule" when its log stream reaches end-of-file.
#pragma once

// Thread body: polls every 60 seconds until exitRequested is set.
void monitorEOF();
