// SPDX-License-Identifier: Apache-2.0
#include "Accounts.h"

namespace agent {

Account LookUp(const Accounts& accounts, uid_t uid, const AccountQuestions& questions) {
    Account account;
    if (questions.primary) {
        account.primary = accounts.FindPrimaryGroup(uid);
    }
    if (!questions.groups.empty()) {
        account.groups = accounts.FindGroupsOf(uid, questions.groups);
        account.asked = questions.groups;
    }
    return account;
}

}  // namespace agent
