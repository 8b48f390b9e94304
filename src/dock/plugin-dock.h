// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "client/ws-state.h"

#include <QDockWidget>

class OAuthListener;
class QCheckBox;
class QColor;
class QColorDialog;
class QComboBox;
class QLabel;
class QLineEdit;
class QNetworkReply;
class QPushButton;
class QSlider;
class QTableWidget;
class QTextEdit;
class QTimer;
class QVBoxLayout;
class TalvoraPlugin;

/**
 * The panel inside OBS: sign-in, settings, languages, transcript and usage. It keeps no settings of its own: every
 * control hands its value to the plug-in, which stores and applies it.
 *
 * User-interface thread. OBS owns it once show() has handed it over.
 */
class PluginDock : public QDockWidget {
	Q_OBJECT

public:
	/** @param plugin must outlive the dock */
	PluginDock(TalvoraPlugin *plugin, QWidget *parent);
	~PluginDock() override;

	/** Registers the panel with OBS, which puts it into a dock of its own, and puts that where it was last time. */
	void show();

	/** Opens the OBS dock around the panel. */
	void bringOnScreen();

	QSize sizeHint() const override { return {380, 800}; }

protected:
	/** Hides the panel; closing never destroys it. */
	void closeEvent(QCloseEvent *event) override;
	/** Lists the audio sources anew. */
	void showEvent(QShowEvent *event) override;
	bool eventFilter(QObject *watched, QEvent *event) override;

private Q_SLOTS:
	// Status and transcript
	void onWsStateChanged(WsState state);
	void onTranscriptUpdated(const QString &text);
	void onLimitWarning(const QString &type, int minutesRemaining);
	void onLimitReached(const QString &type);
	void onErrorOccurred(const QString &message);
	void onStartClicked();
	void onStopClicked();
	void onSessionTick();
	void updateStatusIndicator(WsState state);

	// Sign-in
	void onEmailLoginClicked();
	void onEmailLoginFinished();
	void onOAuthLoginClicked(const QString &provider);
	void onOAuthSuccess(const QString &apiKey, int maxTargetLanguages);
	void onOAuthFailed(const QString &error);
	void onApiKeyConnectClicked();
	void onShowApiKeyClicked();
	void onLogoutClicked();
	void setAuthenticated(bool on);

	// Settings
	void refreshAudioSources();
	void onAudioSourceChanged(int index);
	void onMuteOriginalToggled(bool checked);
	void onCaptionModeChanged(int index);
	void onCaptionAlignChanged(int index);
	void onCaptionColorClicked();
	void onCaptionBgColorClicked();
	void onCaptionOpacityChanged(int value);
	void onCaptionFontClicked();
	void onCaptionPreviewClicked();
	void onDuckingSliderChanged(int value);
	void onTtsVolumeSliderChanged(int value);

	// Languages
	void onSourceLangChanged(int index);
	void onLanguageGridChanged();
	void onMaxTargetLanguagesChanged(int max);

private:
	friend class PluginDockTest;

	void buildUi();
	QWidget *buildTranscriptWidget();
	QWidget *buildStatusSection();
	void connectPlugin();
	/** The dock OBS has put around the panel; null before that. */
	QDockWidget *surroundingDock() const;
	void fitOnScreen();
	void takeKeyboard();
	QLabel *minutesLabel(const QString &type) const;

	QWidget *buildAuthSection();
	QWidget *buildLoginPanel();
	QWidget *buildProviderRow();
	QWidget *buildApiKeyRow();
	QWidget *buildSessionPanel();
	void handleEmailLoginReply(QNetworkReply *reply);
	void signInWith(const QString &apiKey, int maxTargetLanguages);
	void setSignInButtonsEnabled(bool enabled);
	/** Who has signed in in another way is not to be signed in a second time, nor told that the first try failed.
	 */
	void abandonBrowserSignIn();
	/** The same for e-mail and password, of which several may be under way. */
	void abandonEmailSignIn();
	void showSignInMessage(const QString &text);

	QWidget *buildSettingsSection();
	void addAudioSourceRows(QVBoxLayout *rows);
	void addLanguageRows(QVBoxLayout *rows);
	void addCaptionRows(QVBoxLayout *rows);
	void addCaptionStyleRows(QVBoxLayout *rows);
	void addPreviewRows(QVBoxLayout *rows);
	void addLevelRows(QVBoxLayout *rows);
	QColorDialog *openColorDialog(const QColor &color, const char *key);
	QPushButton *addColorRow(QVBoxLayout *rows, const char *key);
	QSlider *addPercentRows(QVBoxLayout *rows, const char *key, int percent, QLabel *&valueLabel);
	void initializeSettings();

	QTableWidget *createLanguageTable();
	void populateLanguageTable();
	void addLanguageRow(const QString &code, const QString &name);
	QCheckBox *addLanguageBox(int row, int column, const QString &accessibleName);
	void uncheckLanguage(const QString &code);
	void enforceLanguageLimit();
	void showLanguageCount(int count, int max);
	static QCheckBox *checkBoxAt(QTableWidget *table, int row, int column);

	TalvoraPlugin *const plugin;

	QWidget *loginPanel = nullptr;
	QWidget *apiKeyRow = nullptr;
	QWidget *sessionPanel = nullptr;
	QLineEdit *emailEdit = nullptr;
	QLineEdit *passwordEdit = nullptr;
	QLineEdit *apiKeyEdit = nullptr;
	QPushButton *signInButton = nullptr;
	QPushButton *googleButton = nullptr;
	QPushButton *twitchButton = nullptr;
	QPushButton *kickButton = nullptr;
	QPushButton *startButton = nullptr;
	QPushButton *stopButton = nullptr;
	QPushButton *logoutButton = nullptr;
	/** The sign-in through a browser that is under way; null when there is none. */
	OAuthListener *oauthListener = nullptr;
	bool authenticated = false;

	QLabel *statusDot = nullptr;
	QLabel *statusLabel = nullptr;
	QLabel *signInMessageLabel = nullptr;
	QLabel *clockLabel = nullptr;
	QTimer *sessionTimer = nullptr;
	/** Seconds since the session became connected. */
	int sessionSeconds = 0;
	bool shownOnce = false;
	/** OBS's layout had no place for the dock yet. */
	bool isNew = false;

	QComboBox *audioSourceCombo = nullptr;
	QCheckBox *muteOriginalCheck = nullptr;
	QComboBox *sourceLangCombo = nullptr;
	QTableWidget *languageTable = nullptr;
	QLabel *languageCountLabel = nullptr;
	QComboBox *captionModeCombo = nullptr;
	QComboBox *captionAlignCombo = nullptr;
	QPushButton *captionColorButton = nullptr;
	QPushButton *captionBgColorButton = nullptr;
	QSlider *opacitySlider = nullptr;
	QLabel *opacityValueLabel = nullptr;
	QPushButton *captionFontButton = nullptr;
	QLineEdit *previewEdit = nullptr;
	QSlider *duckingSlider = nullptr;
	QLabel *duckingValueLabel = nullptr;
	QSlider *ttsVolumeSlider = nullptr;
	QLabel *ttsVolumeValueLabel = nullptr;

	QTextEdit *transcriptView = nullptr;
	QLabel *captionMinutesLabel = nullptr;
	QLabel *dubbedMinutesLabel = nullptr;
};

/** The plug-in's way to its dock, see TalvoraPlugin::setDockFactory(). */
QWidget *createPluginDock(TalvoraPlugin *plugin);
