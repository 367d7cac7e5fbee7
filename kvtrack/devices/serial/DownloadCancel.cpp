#include "kvtrack/devices/serial/DownloadCancel.h"

#include "kvtrack/devices/serial/ZtSerialPort.h"
#include "kvtrack/support/Log.h"

namespace kvtrack {

void cancelRunningDownloads() {
  logLine("serial port: cancelling running downloads");
  ZtSerialPort::cancelAllPorts();
}

void resumeDownloads() { ZtSerialPort::resumeAllPorts(); }

bool downloadsCancelled() { return ZtSerialPort::allPortsCancelled(); }

}  // namespace kvtrack
