<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru" sourcelanguage="en">
<context>
    <name>ZELUpdater</name>
    <message>
        <source>Updater.Checking for Updates</source>
        <extracomment>Title</extracomment>
        <translation>Поиск обновлений</translation>
    </message>
    <message>
        <source>Updater.Cancel</source>
        <extracomment>Button, also in a row of three</extracomment>
        <translation>Отмена</translation>
    </message>
    <message>
        <source>Updater.Downloading</source>
        <extracomment>Title</extracomment>
        <translation>Загрузка</translation>
    </message>
    <message>
        <source>Updater.Connecting</source>
        <extracomment>Message</extracomment>
        <translation>Подключение</translation>
    </message>
    <message>
        <source>Updater.%@ completed</source>
        <extracomment>Message; %@ is a percentage such as 42%</extracomment>
        <translation>Выполнено %@</translation>
    </message>
    <message>
        <source>Updater.Preparing update</source>
        <extracomment>Message</extracomment>
        <translation>Подготовка обновления</translation>
    </message>
    <message>
        <source>Updater.Error</source>
        <extracomment>Title</extracomment>
        <translation>Ошибка</translation>
    </message>
    <message>
        <source>Updater.An error occurred while updating.</source>
        <extracomment>Message</extracomment>
        <translation>При обновлении произошла ошибка.</translation>
    </message>
    <message>
        <source>Updater.Retry</source>
        <extracomment>Button, in a row of two</extracomment>
        <translation>Повторить</translation>
    </message>
    <message>
        <source>Updater.Up To Date</source>
        <extracomment>Title</extracomment>
        <translation>Версия актуальна</translation>
    </message>
    <message>
        <source>Updater.No updates are available.</source>
        <extracomment>Message</extracomment>
        <translation>Нет доступных обновлений.</translation>
    </message>
    <message>
        <source>Updater.Done</source>
        <extracomment>Button</extracomment>
        <translation>Готово</translation>
    </message>
    <message>
        <source>Updater.Completed</source>
        <extracomment>Title</extracomment>
        <translation>Завершено</translation>
    </message>
    <message>
        <source>Updater.Updates were successfully installed.</source>
        <extracomment>Message</extracomment>
        <translation>Обновления успешно установлены.</translation>
    </message>
    <message>
        <source>Updater.Install</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Установить</translation>
    </message>
    <message>
        <source>Updater.Skip</source>
        <extracomment>Button in a row of three</extracomment>
        <translation>Пропустить</translation>
    </message>
    <message>
        <source>Updater.Version %1 is available, you have %2.</source>
        <extracomment>Read out by screen readers; %1 and %2 are versions such as 1.1</extracomment>
        <translation>Доступна версия %1, установлена %2.</translation>
    </message>
</context>
</TS>
