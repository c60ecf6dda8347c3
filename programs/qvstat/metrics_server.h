// SPDX-License-Identifier: Apache-2.0
// metrics_server.h - answers HTTP requests for /metrics, one at a time.
#ifndef QVSTAT_METRICS_SERVER_H
#define QVSTAT_METRICS_SERVER_H

#include <functional>
#include <string>

namespace qvstat {

/**
 * Serves until the process ends.
 * @param address   HOST:PORT, [HOST]:PORT or PORT; without a host, the loopback interface. Port 0 is any free one
 * @param is_ready  is called with the URL once it can be asked
 * @param metrics   makes the answer
 * @return why it cannot serve
 */
std::string serve_metrics(const std::string &address, const std::function<void(const std::string &)> &is_ready,
                          const std::function<std::string()> &metrics);

} // namespace qvstat

#endif
