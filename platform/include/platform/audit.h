// The audit trail: an append-only record of what was done to the host, and by whom.
#pragma once

/// Appends one record: its kind, the user on whose behalf it was done (nullptr: the caller's own),
/// a text, and a flag that the kind gives its meaning. Safe from any thread and across processes;
/// each record is written whole. Returns 0 or a positive errno value.
int KrvAudit_Log(const char* record, const char* user, const char* text, bool flag);
