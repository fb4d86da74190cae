// SPDX-License-Identifier: Apache-2.0
// The same server on sdbus-c++.
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <string>

#include "serve.h"

int main(int argc, char** argv) {
    try {
        const auto connection = sdbus::createSystemBusConnection();
        const auto object = sdbus::createObject(*connection, BENCH_PATH);
        object->registerMethod(BENCH_MEMBER)
            .onInterface(BENCH_NAME)
            .implementedAs([](const std::string&, const std::string&, const std::int32_t&) {
                return std::string(BENCH_REPLY);
            });
        object->finishRegistration();
        connection->requestName(serve_name(argc, argv));
        serve_ready();
        connection->enterEventLoop();
    } catch (const std::exception& exception) {
        measure_fail(exception.what());
    }
}
