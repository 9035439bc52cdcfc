/* The manager window's dialogs and controls, shared by the resource script
   and the program (plain defines, as the resource compiler reads them). */
#pragma once

#define MANAGER_DIALOG 300
#define MANAGER_IDENTITIES 301
#define MANAGER_KEY_FILE 302
#define MANAGER_BROWSE 303
#define MANAGER_ADD 304
#define MANAGER_REMOVE 305
#define MANAGER_REMOVE_ALL 306
#define MANAGER_LOCK 307
#define MANAGER_UNLOCK 308
#define MANAGER_STATE 309
#define MANAGER_CONFIRM_KEY_OP 310
#define MANAGER_ALLOW_ADD 311
#define MANAGER_ALLOW_DELETE 312
#define MANAGER_USE_ONLY_SHA1 313
#define MANAGER_CREATE_LOG 314
#define MANAGER_AUTO_LOCK 315
#define MANAGER_AUTO_LOCK_MINUTES 316
#define MANAGER_CHANGE_PASSPHRASE 317
#define MANAGER_RESET 318
/* Posted by the agent to its refresh registrations. */
#define MANAGER_REFRESH 319
#define MANAGER_HELP 9

#define CHANGE_PASSPHRASE_DIALOG 330
#define CHANGE_OLD 331
#define CHANGE_NEW 332
#define CHANGE_REPEAT 333
#define CHANGE_EMPTY 221
