// SPDX-License-Identifier: GPL-2.0-or-later
#include "sign-in/sign-in-page.h"

#include <QRegularExpression>
#include <QTest>

class SignInPageTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void successPageHoldsAllItsParts_data();
	void successPageHoldsAllItsParts();
	void successPageNeedsNothingFromElsewhere();
	void successPageIsAboutTwoKilobytes();
	void mismatchPage();
	void errorPage_data();
	void errorPage();
	void noTokenPage();
};

void SignInPageTest::successPageHoldsAllItsParts_data()
{
	QTest::addColumn<QString>("pattern");
	QTest::newRow("one whole document") << R"(\A<!DOCTYPE html>\n<html\b.*</html>\n\z)";
	QTest::newRow("UTF-8") << R"(<meta charset="utf-8">)";
	QTest::newRow("title") << "<title>Talvora</title>";
	QTest::newRow("viewport") << R"(<meta name="viewport" content="width=device-width, initial-scale=1">)";
	QTest::newRow("dark background") << R"(body \{[^}]*background: #09090b;)";
	QTest::newRow("centred") << R"(body \{[^}]*align-items: center; justify-content: center;)";
	QTest::newRow("card") << R"(\.card \{[^}]*max-width: 420px;[^}]*background: #18181b;)";
	QTest::newRow("language") << R"(^<!DOCTYPE html>\s<html lang="en">\s)";
	QTest::newRow("card around it all") << R"(<main class="card">\s<div class="name">.*</main>)";
	QTest::newRow("card's edge") << R"(\.card \{[^}]*border: 1px solid #27272a; border-radius: 16px;)";
	QTest::newRow("card's entrance")
		<< R"(\.card \{[^}]*animation: rise 0\.5s.*@keyframes rise \{ from \{ opacity: 0; transform: translateY)";
	QTest::newRow("two-tone name")
		<< R"(\.name \{ font-size: 20px; font-weight: bold; color: #fafafa; \}\s*\.name span \{ color: #7dd3fc; \})"
		   R"(.*<div class="name">Tal<span>vora</span></div>)";
	QTest::newRow("badge")
		<< R"(\.badge \{ width: 64px; height: 64px;[^}]*border-radius: 50%;[^}]*rgba\(14, 165, 233, 0\.15\))";
	QTest::newRow("check mark")
		<< R"(stroke="#0ea5e9" stroke-width="2\.5"\s*stroke-linecap="round" stroke-linejoin="round"><polyline points="20 6 9 17 4 12"/>)";
	QTest::newRow("check mark is drawn")
		<< R"(polyline \{[^}]*animation: draw 0\.4s ease-out 0\.3s forwards.*@keyframes draw \{ to \{ stroke-dashoffset: 0)";
	QTest::newRow("heading") << "<h1>Login Successful</h1>";
	QTest::newRow("text") << "You are now logged in to Talvora.<br>You can close this tab and return to OBS.";
	QTest::newRow("pulsing dot")
		<< R"(\.dot \{[^}]*background: #0ea5e9; animation: pulse 1\.5s infinite.*@keyframes pulse.*class="pill"><span class="dot">)";
	QTest::newRow("dot fades to a third") << R"(@keyframes pulse \{ 50% \{ opacity: 0\.3; \} \})";
	QTest::newRow("dot's size") << R"(\.dot \{ width: 8px; height: 8px; border-radius: 50%;)";
	QTest::newRow("text's look")
		<< R"(body \{ margin: 0; min-height: 100vh;[^}]*color: #a1a1aa; font: 15px/1\.6 system-ui)";
	QTest::newRow("card's room") << R"(width: 100%; max-width: 420px; margin: 20px; padding: 40px 32px;)";
	QTest::newRow("card rises") << R"(translateY\(16px\))";
	QTest::newRow("badge around the tick") << R"(<div class="badge"><svg )";
	QTest::newRow("badge's place") << R"(\.badge \{[^}]*margin: 28px auto 20px;)";
	QTest::newRow("check mark's size") << R"(<svg width="32" height="32" viewBox="0 0 24 24" fill="none")";
	QTest::newRow("check mark's length") << R"(polyline \{ stroke-dasharray: 24; stroke-dashoffset: 24;)";
	QTest::newRow("heading's look")
		<< R"(h1 \{ margin: 0 0 8px; font-size: 22px; color: #fafafa; \}\sp \{ margin: 0 0 24px; \})";
	QTest::newRow("pill") << R"(<div class="pill"><span class="dot"></span>Signed in</div>)";
	QTest::newRow("pill's look")
		<< R"(gap: 8px; padding: 4px 14px;\s*border: 1px solid #27272a; border-radius: 999px; font-size: 13px; \})";
	QTest::newRow("closes itself")
		<< R"(<script>setTimeout\(function \(\) \{ window\.close\(\); \}, 3000\);</script>)";
}

void SignInPageTest::successPageHoldsAllItsParts()
{
	QFETCH(QString, pattern);
	const QRegularExpression part(pattern, QRegularExpression::DotMatchesEverythingOption);
	QVERIFY2(part.isValid(), qPrintable(part.errorString()));
	QVERIFY2(part.match(signInSuccessPage()).hasMatch(), qPrintable(pattern));
}

void SignInPageTest::successPageNeedsNothingFromElsewhere()
{
	const QString page = signInSuccessPage();
	for (const char *loader : {"http:", "https:", "//", "src=", "href=", "url(", "@import", "<link", "<img"}) {
		QVERIFY2(!page.contains(QLatin1String(loader)), loader);
	}
}

void SignInPageTest::successPageIsAboutTwoKilobytes()
{
	const qsizetype bytes = signInSuccessPage().toUtf8().size();
	QVERIFY2(bytes > 1500 && bytes < 2600, qPrintable(QString::number(bytes)));
}

void SignInPageTest::mismatchPage()
{
	QCOMPARE(signInMismatchPage(),
		 QStringLiteral("<html><body style='font-family:sans-serif;text-align:center;padding:60px'>"
				"<h1 style='color:#f44336'>Login Failed</h1>"
				"<p>Security validation failed (state mismatch). Please try again.</p></body></html>"));
}

void SignInPageTest::errorPage_data()
{
	QTest::addColumn<QString>("error");
	QTest::addColumn<QString>("shown");
	QTest::newRow("plain") << "access_denied" << "access_denied";
	QTest::newRow("empty") << "" << "";
	QTest::newRow("markup") << "<script>alert(\"1\")</script> & more"
				<< "&lt;script&gt;alert(&quot;1&quot;)&lt;/script&gt; &amp; more";
	QTest::newRow("a place marker") << "100 %1" << "100 %1";
	QTest::newRow("beyond ASCII") << QString::fromUtf8("échec — ошибка") << QString::fromUtf8("échec — ошибка");
}

void SignInPageTest::errorPage()
{
	QFETCH(QString, error);
	QFETCH(QString, shown);
	QCOMPARE(signInErrorPage(error),
		 QStringLiteral("<html><body style='font-family:sans-serif;text-align:center;padding:60px'>"
				"<h1 style='color:#f44336'>Login Failed</h1><p>") +
			 shown +
			 QStringLiteral("</p><p>You can close this tab and try again in OBS.</p></body></html>"));
}

void SignInPageTest::noTokenPage()
{
	QCOMPARE(signInNoTokenPage(),
		 QStringLiteral("<html><body style='font-family:sans-serif;text-align:center;padding:60px'>"
				"<h1 style='color:#f44336'>Login Failed</h1><p>No authentication token received.</p>"
				"<p>You can close this tab and try again in OBS.</p></body></html>"));
}

QTEST_GUILESS_MAIN(SignInPageTest)

#include "sign-in-page-test.moc"
