// Readable one-line texts for operating-system and management-service error codes.
#pragma once

struct ErrorTextRow {
    unsigned long ulCode;
    const char* szText;
};

// WMI error texts in ascending code order, ended by a row with code 0.
extern const ErrorTextRow g_ErrorTextTable[];

// Text for an HRESULT or GetLastError value: the system's message tables first,
// then the WMI table, else "unknown". The returned buffer belongs to the calling
// thread and stays valid until its next call.
const char* GetErrorText(unsigned long ulCode);
