#pragma once

#include <QString>
#include <QUrl>

#include <optional>

// Turns what the user typed into a URL to open, or none when it is refused:
// - surrounding white space is ignored; empty text and text with inner spaces are refused;
// - "/path" and "~/path" become file URLs;
// - text with a scheme ("https://…", "mailto:…", "slack://…") is kept as it is, except
//   that "javascript:" and "data:" are refused (they would run or show content, not open
//   a place);
// - anything else ("example.com", "localhost:8080/x") is a web address: "https://" is
//   put in front, provided what comes before the first "/" looks like a host name.
std::optional<QUrl> urlFromUserText(const QString& text);
