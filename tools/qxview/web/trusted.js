// The pages set text, never HTML. The chart library sets HTML in a few places, and the browser refuses that under
// `require-trusted-types-for 'script'` unless a default policy converts it. This policy turns every such HTML into text.
// It is a classic script, so that it runs before the chart library does.
"use strict";
if (window.trustedTypes) {
  const entities = { "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;", "'": "&#39;" };
  window.trustedTypes.createPolicy("default", {
    createHTML: (text) => text.replace(/[&<>"']/g, (character) => entities[character]),
  });
}
