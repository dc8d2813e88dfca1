// Opens the record's protected helpers to the tests.
#pragma once

#include "messages/CMessageList.h"

class MessageProbe : public CMessageList {
public:
    using CMessageList::baseConv;
    using CMessageList::CMessageList;
    using CMessageList::GetHash;
    using CMessageList::IntelliScan;
    using CMessageList::RandomString;
};
