// SPDX-License-Identifier: Apache-2.0
// The texts of the status codes. Hidden; the outside reaches them through SR_ErrorToString().
#ifndef SENTREL_SR_ERROR_H
#define SENTREL_SR_ERROR_H

namespace sentrel {

class SR_Error {
public:
    // A static text, the same pointer for the same code; "Unknown error" outside the table.
    static const char* ToString(int code);
};

}  // namespace sentrel

#endif
