// The three storage handles of an account, shared by the copies of a profile and closed (committed)
// with the last of them: the contacts first, then the messages, then the account's own sub-storage, so
// that every child publishes into a parent that is still open.
#pragma once

#include "accounts/CMailBoxProfile.h"
#include "messages/CStorageManager.h"
#include "platform/CString.h"

struct CMailBoxProfile::Storages {
    CStorageManager account;
    CStorageManager messages;
    CStorageManager contacts;
    // The message file the message storage is open on; empty while it is "Messages" of the account.
    CString messageFile;

    ~Storages() {
        contacts.Close();
        messages.Close();
        account.Close();
    }
};
