// The journal between the broker and its successor. The broker's one thread.
#pragma once

#include "journal.h"

// Opens the journal in the broker's persistence folder and gives the broker what its predecessor took and did not save.
// False, with the reason in *why, when it cannot be opened.
bool unsaved_open(journal *notes, const std::string &folder, std::string *why);

// A callback for MOSQ_EVT_MESSAGE, after those that may refuse the message; user is the journal.
int unsaved_note(int, void *event, void *user);
