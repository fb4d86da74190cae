// SPDX-License-Identifier: Apache-2.0
// One agent request or response as plain values, and the two functions that turn names into paths.
// Value types without state of their own; one object belongs to one thread at a time.
#ifndef SENTREL_SR_MESSAGE_H
#define SENTREL_SR_MESSAGE_H

#include <string>

#include "SR_Export.h"

namespace sentrel {

class SR_EXPORT Message {
public:
    // `outputStream` is a descriptor number of the calling process; it is recorded, never used.
    Message(const std::string& data, int outputStream);
    // The output stream by path; GetOutputStream() is then -1.
    Message(const std::string& data, const std::string& outputStreamPath);

    // The argument text of a request or the payload of a response; any bytes.
    const std::string& Get() const { return data; }
    int GetOutputStream() const { return outputStream; }
    const std::string& GetOutputStreamPath() const { return outputStreamPath; }
    // The agent's name, such as "sr_mount"; empty until set.
    const std::string& GetAgent() const { return agent; }
    void SetAgent(const std::string& name) { agent = name; }
    // The agent's own return value; 0 until set.
    int GetRv() const { return returnValue; }
    void SetRv(int value) { returnValue = value; }

private:
    std::string data;
    int outputStream;
    std::string outputStreamPath;
    int returnValue;
    std::string agent;
};

// Replaces `path` by the object path that belongs to a bus name: "/" and the name with every "."
// turned into "/". Nothing is validated.
SR_EXPORT void ServiceNameToPath(const std::string& service, std::string& path);

// "/proc/PID/fd/DESCRIPTOR", under which a process with the rights can reach the open file of
// another; the empty string for a descriptor of 0 or less. `pid` is not tested.
SR_EXPORT std::string DescriptorToPath(int descriptor, int pid);

}  // namespace sentrel

#endif
