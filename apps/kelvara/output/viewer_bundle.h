// The clip viewer's page and script, generated at build time from web/viewer/ (bundled with
// three.js by esbuild), so that writing a page needs nothing but this program.
#pragma once

namespace kelvara
{

// The HTML page with the markers @KELVARA_DATA@ (the page's JSON data) and @KELVARA_SCRIPT@.
extern const char* const kViewerPage;
// The bundled viewer, safe to place inside a <script> element.
extern const char* const kViewerScript;

} // namespace kelvara
