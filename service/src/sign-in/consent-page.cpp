// SPDX-License-Identifier: GPL-3.0-or-later
#include "sign-in/consent-page.h"

namespace {

const char *const kPage = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>%1</title>
<style>
* { box-sizing: border-box; }
body { margin: 0; min-height: 100vh; display: flex; align-items: center; justify-content: center; padding: 24px;
  background: #f4f4f5; color: #18181b; font: 16px/1.5 system-ui, sans-serif; }
main { width: 100%; max-width: 420px; padding: 32px; background: #fff; border: 1px solid #e4e4e7;
  border-radius: 12px; }
h1 { margin: 0 0 12px; font-size: 22px; line-height: 1.3; }
p { margin: 0 0 16px; }
.note { color: #52525b; font-size: 14px; }
form { display: flex; gap: 12px; margin: 24px 0 0; }
button { flex: 1; padding: 10px 16px; border: 1px solid #a1a1aa; border-radius: 8px; background: #fff; color: #18181b;
  font: inherit; cursor: pointer; }
button[value=allow] { background: #0369a1; border-color: #0369a1; color: #fff; font-weight: 600; }
button:focus-visible { outline: 3px solid #38bdf8; outline-offset: 2px; }
@media (prefers-color-scheme: dark) {
  body { background: #09090b; color: #fafafa; }
  main { background: #18181b; border-color: #27272a; }
  .note { color: #a1a1aa; }
  button { background: #27272a; border-color: #52525b; color: #fafafa; }
}
</style>
</head>
<body>
<main>
%2
</main>
</body>
</html>
)";

const char *const kConsent = R"(<h1>Sign in to Talvora with %1</h1>
<p>Talvora wants to know who you are on %1.</p>
<p class="note">This page belongs to the local service of this machine and stands in for %1. No account there is
used, and nothing leaves the machine.</p>
<form method="post">
<input type="hidden" name="consent" value="%2">
<button type="submit" name="decision" value="decline" id="decline">Decline</button>
<button type="submit" name="decision" value="allow" id="allow">Allow</button>
</form>)";

QByteArray page(const QString &title, const QString &content)
{
	return QString::fromLatin1(kPage).arg(title.toHtmlEscaped(), content).toUtf8();
}

} // namespace

QByteArray consentPage(const QString &providerName, const QString &consentId)
{
	return page(QStringLiteral("Sign in with ") + providerName,
		    QString::fromLatin1(kConsent).arg(providerName.toHtmlEscaped(), consentId.toHtmlEscaped()));
}

QByteArray failurePage(const QString &sentence)
{
	return page(QStringLiteral("Sign-in failed"),
		    QStringLiteral("<h1>Sign-in failed</h1>\n<p>%1</p>").arg(sentence.toHtmlEscaped()));
}
