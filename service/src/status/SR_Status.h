/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The status codes of a call, shared by the library, its callers and the agent. Plain C99.
 *
 * The values travel on the wire and never change. An agent may answer with a value that is not
 * listed here; it reaches the caller as it is, and its text is "Unknown error".
 * SR_ErrorToString() gives the text of a code: the name below without its first "SR_".
 */
#ifndef SENTREL_SR_STATUS_H
#define SENTREL_SR_STATUS_H

/* The status of an operation. */
enum SR_Status {
    SR_OK = 0,                  /* the agent carried the operation out; see its return value */
    SR_FAIL = 1,                /* agent: refused or failed for a reason without its own code */
    SR_INVALID_REGEX = 2,       /* agent: the deciding rule has a pattern that is not valid */
    SR_COMM_OK = 3,             /* inside the library only: the exchange succeeded */
    SR_COMM_SERVICE_EXISTS = 4, /* not used at present */
    SR_COMM_NO_SERVICE = 5,     /* nobody owns the agent's name on the bus */
    SR_COMM_FAILED = 6,         /* any other failure of the exchange; may have been carried out */
    SR_RULE_NO_FOUND = 7,       /* agent: no rule allows this, or one forbids it */
    SR_WAITPID_FAILED = 8,      /* agent: the tool's end could not be learned, or it was late */
    SR_FORK_FAILED = 9,         /* agent: the tool could not be started */
    SR_FEATURE_ISNT_IMPLEMENTED = 10 /* agent: no such operation, or its tool is not installed */
};

#endif
