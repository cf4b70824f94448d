#pragma once

/// Shows `text` (UTF-8; null: empty) in a box and returns once the user has closed it.
/// Thread: main.
void AfxMessageBoxInternal(const char* text);
