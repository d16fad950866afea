#pragma once

/// Publishes the store's folders, the module's data folder and the package repository with the HTTP module.
/// Failures are logged.
void FileStorePublishAliases();

/// Publishes the package repository alone, after its path changed.
void FileStorePublishRepositoryAlias();
