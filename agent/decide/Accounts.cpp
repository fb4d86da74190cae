// SPDX-License-Identifier: Apache-2.0
#include "Accounts.h"

namespace agent {

Account LookUp(const Accounts& accounts, uid_t uid, const AccountQuestions& questions) {
    Account account;
    gid_t primary = 0;
    if (questions.primary && accounts.FindPrimaryGroup(uid, primary)) {
        account.primary = primary;
    }
    if (!questions.groups.empty()) {
        account.groups = accounts.FindGroupsOf(uid, questions.groups);
        account.asked = questions.groups;
    }
    return account;
}

}  // namespace agent
