// SPDX-License-Identifier: Apache-2.0
#include "SR_Message.h"

#include <algorithm>
#include <utility>

namespace sentrel {

Message::Message(const std::string& messageData, int stream)
    : data(messageData), outputStream(stream), returnValue(0) {}

Message::Message(const std::string& messageData, const std::string& streamPath)
    : data(messageData), outputStream(-1), outputStreamPath(streamPath), returnValue(0) {}

void ServiceNameToPath(const std::string& service, std::string& path) {
    std::string result;
    result.reserve(service.size() + 1);
    result.append("/");
    result.append(service);
    path = std::move(result);
    std::replace(path.begin(), path.end(), '.', '/');
}

std::string DescriptorToPath(int descriptor, int pid) {
    if (descriptor <= 0) {
        return std::string();
    }
    return "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
}

}  // namespace sentrel
