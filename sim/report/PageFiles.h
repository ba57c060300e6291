#pragma once

/// The page of HtmlText with its style and program, made from the files of page/ when this is built. Three comments,
/// kPageTitle, kPageData and kPageText, are replaced by the title, the data and a text for browsers without programs.
extern const char *const kPageFile;

constexpr const char *kPageTitle = "<!--title-->";
constexpr const char *kPageData = "<!--data-->";
constexpr const char *kPageText = "<!--text-->";
