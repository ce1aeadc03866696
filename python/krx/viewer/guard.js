// Counts every script error and every blocked load into the status line before anything else
// runs, so that a page that broke says so (and a test that reads the page sees it).
(function () {
  "use strict";
  var problems = [];
  function report(text) {
    problems.push(text);
    var status = document.getElementById("status");
    if (status) {
      status.dataset.errors = String(problems.length);
      status.dataset.state = "error";
      status.textContent = "error: " + problems.join("; ");
    }
  }
  window.krxProblems = problems;
  window.addEventListener("error", function (e) {
    report(e.message ? e.message + " (" + e.filename + ":" + e.lineno + ")" : "a resource failed");
  }, true);
  window.addEventListener("unhandledrejection", function (e) { report(String(e.reason)); });
  document.addEventListener("securitypolicyviolation", function (e) {
    report("blocked by the page's policy: " + e.violatedDirective);
  });
})();
