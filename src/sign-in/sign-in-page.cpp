// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/sign-in-page.h"

namespace {

QString failurePage(const QString &paragraphs)
{
	return QStringLiteral("<html><body style='font-family:sans-serif;text-align:center;padding:60px'>"
			      "<h1 style='color:#f44336'>Login Failed</h1>") +
	       paragraphs + QStringLiteral("</body></html>");
}

/** A failure that the user may just try again. @param reason HTML */
QString tryAgainPage(const QString &reason)
{
	return failurePage(QStringLiteral("<p>") + reason +
			   QStringLiteral("</p><p>You can close this tab and try again in OBS.</p>"));
}

} // namespace

QString signInSuccessPage()
{
	return QStringLiteral(R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Talvora</title>
<style>
body { margin: 0; min-height: 100vh; display: flex; align-items: center; justify-content: center;
  background: #09090b; color: #a1a1aa; font: 15px/1.6 system-ui, sans-serif; }
.card { box-sizing: border-box; width: 100%; max-width: 420px; margin: 20px; padding: 40px 32px;
  background: #18181b; border: 1px solid #27272a; border-radius: 16px; text-align: center;
  animation: rise 0.5s ease-out; }
.name { font-size: 20px; font-weight: bold; color: #fafafa; }
.name span { color: #7dd3fc; }
.badge { width: 64px; height: 64px; margin: 28px auto 20px; border-radius: 50%;
  display: flex; align-items: center; justify-content: center; background: rgba(14, 165, 233, 0.15); }
.badge polyline { stroke-dasharray: 24; stroke-dashoffset: 24; animation: draw 0.4s ease-out 0.3s forwards; }
h1 { margin: 0 0 8px; font-size: 22px; color: #fafafa; }
p { margin: 0 0 24px; }
.pill { display: inline-flex; align-items: center; gap: 8px; padding: 4px 14px;
  border: 1px solid #27272a; border-radius: 999px; font-size: 13px; }
.dot { width: 8px; height: 8px; border-radius: 50%; background: #0ea5e9; animation: pulse 1.5s infinite; }
@keyframes rise { from { opacity: 0; transform: translateY(16px); } }
@keyframes draw { to { stroke-dashoffset: 0; } }
@keyframes pulse { 50% { opacity: 0.3; } }
</style>
</head>
<body>
<main class="card">
<div class="name">Tal<span>vora</span></div>
<div class="badge"><svg width="32" height="32" viewBox="0 0 24 24" fill="none" stroke="#0ea5e9" stroke-width="2.5"
  stroke-linecap="round" stroke-linejoin="round"><polyline points="20 6 9 17 4 12"/></svg></div>
<h1>Login Successful</h1>
<p>You are now logged in to Talvora.<br>You can close this tab and return to OBS.</p>
<div class="pill"><span class="dot"></span>Signed in</div>
</main>
<script>setTimeout(function () { window.close(); }, 3000);</script>
</body>
</html>
)");
}

QString signInMismatchPage()
{
	return failurePage(QStringLiteral("<p>Security validation failed (state mismatch). Please try again.</p>"));
}

QString signInErrorPage(const QString &error)
{
	return tryAgainPage(error.toHtmlEscaped());
}

QString signInNoTokenPage()
{
	return tryAgainPage(QStringLiteral("No authentication token received."));
}
