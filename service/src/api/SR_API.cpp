// SPDX-License-Identifier: Apache-2.0
#include "SR_API.h"

#include <string>

#include "SR_CommunicationClient.h"
#include "SR_Error.h"
#include "SR_LogImpl.h"
#include "SR_Message.h"

namespace sentrel {

namespace {

int SR_Agent(const char* agent, const char* args, unsigned int length, int descriptor,
             int* result) {
    if (args == nullptr) {
        return SR_COMM_FAILED;
    }
    const std::string arguments(args, length);
    Communication communication;
    Message request(arguments, descriptor);
    request.SetAgent(agent);
    Message response(std::string(), -1);
    const int code = communication.SendMessage("org.sentrel.sr_agent", request, response);
    if (code != SR_COMM_OK) {
        SR_LOG(ERR, "[Client][Status]" << code);
        return code;
    }
    // The exchange leaves the data as it was made: empty.
    SR_LOG(DBG, "response:" << response.Get());
    if (result != nullptr) {
        *result = response.GetRv();
    }
    return SR_OK;
}

}  // namespace

}  // namespace sentrel

int SR_Mount(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_mount", args, length, descriptor, result);
}

int SR_Umount(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_umount", args, length, descriptor, result);
}

int SR_Mount_Cifs(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_mount_cifs", args, length, descriptor, result);
}

int SR_Umount_Cifs(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_umount_cifs", args, length, descriptor, result);
}

int SR_Mknod(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_mknod", args, length, descriptor, result);
}

int SR_Insmod(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_insmod", args, length, descriptor, result);
}

int SR_Rmmod(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_rmmod", args, length, descriptor, result);
}

int SR_Systemctl(const char* args, unsigned int length, int descriptor, int* result) {
    return sentrel::SR_Agent("sr_systemctl", args, length, descriptor, result);
}

const char* SR_ConfigInfo(void) {
    return "v1.0 5d1e0c2a7b94f3e8a06c1b7d29e4f5a3";
}

const char* SR_ErrorToString(int code) {
    return sentrel::SR_Error::ToString(code);
}
